#include <KQVisitorCore/XMPP/XMPPElement.h>

#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <libxml/tree.h>
#include <libxml/xpath.h>
#include <libxml/xpathInternals.h>

#include <algorithm>
#include <stdexcept>

namespace kq::xmpp {

struct XMPPElement::Document {
  explicit Document(xmlDocPtr document) : doc(document) {}
  ~Document() { xmlFreeDoc(doc); }
  Document(const Document&) = delete;
  Document& operator=(const Document&) = delete;

  xmlDocPtr doc;
};

namespace {

const xmlChar* asXML(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD";  // U+FFFD

// The character at the start of `text`: its code point and the length of its UTF-8 sequence,
// or length 0 when the bytes are not well-formed UTF-8 (overlong forms and code points past
// U+10FFFF included; surrogates are decoded, and refused by isXMLCharacter).
struct Decoded {
  char32_t codePoint = 0;
  std::size_t length = 0;
};

Decoded decodeUTF8(std::string_view text) {
  const auto byte = [&text](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned lead = byte(0);
  std::size_t length = 0;
  char32_t codePoint = 0;
  if (lead < 0x80U) {
    return {lead, 1};
  }
  if (lead >= 0xC2U && lead <= 0xDFU) {
    length = 2;
    codePoint = lead & 0x1FU;
  } else if (lead >= 0xE0U && lead <= 0xEFU) {
    length = 3;
    codePoint = lead & 0x0FU;
  } else if (lead >= 0xF0U && lead <= 0xF4U) {
    length = 4;
    codePoint = lead & 0x07U;
  } else {
    return {};
  }
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0U) != 0x80U) {
      return {};
    }
    codePoint = (codePoint << 6U) | (byte(i) & 0x3FU);
  }
  const char32_t smallest = length == 3 ? 0x800 : length == 4 ? 0x10000 : 0x80;
  if (codePoint < smallest || codePoint > 0x10FFFF) {
    return {};
  }
  return {codePoint, length};
}

bool isXMLCharacter(char32_t c) {
  return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// `text` as libxml2 takes it, made valid first: see XMPPElement's class comment.
const xmlChar* xml(std::string_view text, std::string& storage) {
  storage.clear();
  storage.reserve(text.size());
  std::size_t start = 0;  // of the run of valid characters not yet copied
  std::size_t i = 0;
  while (i < text.size()) {
    if (const auto byte = static_cast<unsigned char>(text[i]); byte >= 0x20U && byte < 0x80U) {
      ++i;  // printable ASCII, most text: valid as it stands
      continue;
    }
    const Decoded character = decodeUTF8(text.substr(i));
    if (character.length > 0 && isXMLCharacter(character.codePoint)) {
      i += character.length;
      continue;
    }
    // A forbidden character is replaced whole; a malformed sequence byte by byte.
    storage.append(text.substr(start, i - start));
    storage.append(kReplacementCharacter);
    i += std::max<std::size_t>(character.length, 1);
    start = i;
  }
  storage.append(text.substr(start));
  return asXML(storage.c_str());
}

// Appends `text` escaped for element content or, with `attribute`, for a double-quoted
// attribute value (where line ends and tabs are written as references, so they read back).
void appendEscaped(std::string& out, std::string_view text, bool attribute) {
  std::size_t start = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    std::string_view replacement;
    switch (text[i]) {
      case '&': replacement = "&amp;"; break;
      case '<': replacement = "&lt;"; break;
      case '>': replacement = "&gt;"; break;
      case '\r': replacement = "&#13;"; break;
      case '"': replacement = attribute ? "&quot;" : ""; break;
      case '\n': replacement = attribute ? "&#10;" : ""; break;
      case '\t': replacement = attribute ? "&#9;" : ""; break;
      default: break;
    }
    if (!replacement.empty()) {
      out.append(text.substr(start, i - start));
      out.append(replacement);
      start = i + 1;
    }
  }
  out.append(text.substr(start));
}

std::string_view view(const xmlChar* text) {
  return text == nullptr ? std::string_view()
                         : std::string_view(reinterpret_cast<const char*>(text));
}

void appendQualifiedName(std::string& out, const xmlNs* ns, const xmlChar* name) {
  if (ns != nullptr && ns->prefix != nullptr) {
    out.append(view(ns->prefix));
    out.push_back(':');
  }
  out.append(view(name));
}

// Writes `node` and its descendants as XML: every name, namespace and value escaped.
void serialize(std::string& out, const xmlNode* node) {
  switch (node->type) {
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE: appendEscaped(out, view(node->content), false); return;
    case XML_ELEMENT_NODE: break;
    default: return;  // comments and processing instructions are not part of a stanza
  }
  out.push_back('<');
  appendQualifiedName(out, node->ns, node->name);
  for (const xmlNs* ns = node->nsDef; ns != nullptr; ns = ns->next) {
    out.append(" xmlns");
    if (ns->prefix != nullptr) {
      out.push_back(':');
      out.append(view(ns->prefix));
    }
    out.append("=\"");
    appendEscaped(out, view(ns->href), true);
    out.push_back('"');
  }
  for (const xmlAttr* attribute = node->properties; attribute != nullptr;
       attribute = attribute->next) {
    out.push_back(' ');
    appendQualifiedName(out, attribute->ns, attribute->name);
    out.append("=\"");
    for (const xmlNode* part = attribute->children; part != nullptr; part = part->next) {
      appendEscaped(out, view(part->content), true);
    }
    out.push_back('"');
  }
  if (node->children == nullptr) {
    out.append("/>");
    return;
  }
  out.push_back('>');
  for (const xmlNode* child = node->children; child != nullptr; child = child->next) {
    serialize(out, child);
  }
  out.append("</");
  appendQualifiedName(out, node->ns, node->name);
  out.push_back('>');
}

std::string fromXML(const xmlChar* value) {
  return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
}

// Takes ownership of a string libxml2 allocated.
std::string takeXML(xmlChar* value) {
  std::string result = fromXML(value);
  xmlFree(value);
  return result;
}

bool nameIs(const xmlNode* node, std::string_view name) {
  return node->type == XML_ELEMENT_NODE &&
         std::string_view(reinterpret_cast<const char*>(node->name)) == name;
}

// The node after `node` in document order, descending first; nullptr after the last.
const xmlNode* nextInDocumentOrder(const xmlNode* node) {
  if (node->children != nullptr) {
    return node->children;
  }
  while (node != nullptr && node->next == nullptr) {
    node = node->parent;
  }
  return node != nullptr ? node->next : nullptr;
}

bool namespaceIs(const xmlNode* node, std::string_view xmlns) {
  const std::string_view href =
      node->ns != nullptr && node->ns->href != nullptr
          ? std::string_view(reinterpret_cast<const char*>(node->ns->href))
          : std::string_view();
  return href == xmlns;
}

xmlDocPtr newDocument() {
  XMPPParser::initialize();
  xmlDocPtr doc = xmlNewDoc(asXML("1.0"));
  if (doc == nullptr) {
    throw std::bad_alloc();
  }
  return doc;
}

// `name` as a tree stores it: names are cleaned like all text put in (see xml()), so a name
// is looked up cleaned too. Plain ASCII, the rule, is its own clean form.
std::string_view storedName(std::string_view name, std::string& storage) {
  const bool plain = std::all_of(name.begin(), name.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20U && byte < 0x80U;
  });
  if (plain) {
    return name;
  }
  xml(name, storage);
  return storage;
}

// The attribute `localName` of `node` in namespace `href` (nullptr: in no namespace).
xmlAttrPtr findProperty(xmlNodePtr node, std::string_view localName, const xmlChar* href) {
  for (xmlAttrPtr attribute = node->properties; attribute != nullptr; attribute = attribute->next) {
    if (std::string_view(reinterpret_cast<const char*>(attribute->name)) != localName) {
      continue;
    }
    if (href == nullptr ? attribute->ns == nullptr
                        : attribute->ns != nullptr && xmlStrEqual(attribute->ns->href, href) != 0) {
      return attribute;
    }
  }
  return nullptr;
}

// The attribute `name` of `node`: "prefix:local" names are looked up with their namespace.
xmlAttrPtr findAttribute(xmlNodePtr node, std::string_view name) {
  std::string storage;
  name = storedName(name, storage);
  const auto colon = name.find(':');
  if (colon == std::string_view::npos) {
    return findProperty(node, name, nullptr);
  }
  const std::string_view localName = name.substr(colon + 1);
  const std::string prefix(name.substr(0, colon));
  if (prefix == "xml") {
    // xmlSearchNs would add the xml namespace to the document on first use: a write that
    // concurrent readers of the tree would race on.
    return findProperty(node, localName, XML_XML_NAMESPACE);
  }
  xmlNsPtr ns = xmlSearchNs(node->doc, node, asXML(prefix.c_str()));
  return ns == nullptr ? findProperty(node, name, nullptr)
                       : findProperty(node, localName, ns->href);
}

// An attribute's value; read in place when it is one text node, as the parser makes it.
std::string attributeValue(xmlAttrPtr attribute) {
  const xmlNode* child = attribute->children;
  if (child != nullptr && child->next == nullptr && child->type == XML_TEXT_NODE) {
    return fromXML(child->content);
  }
  return takeXML(xmlNodeGetContent(reinterpret_cast<xmlNodePtr>(attribute)));
}

}  // namespace

XMPPElement::XMPPElement(std::shared_ptr<Document> document, _xmlNode* node)
    : document_(std::move(document)), node_(node) {}

XMPPElement::XMPPElement(std::string_view name) {
  auto document = std::make_shared<Document>(newDocument());
  std::string storage;
  xmlNodePtr node = xmlNewDocNode(document->doc, nullptr, xml(name, storage), nullptr);
  xmlDocSetRootElement(document->doc, node);
  document_ = std::move(document);
  node_ = node;
}

XMPPElement::XMPPElement(std::string_view name, std::string_view xmlns) : XMPPElement(name) {
  std::string storage;
  xmlNsPtr ns = xmlNewNs(node_, xml(xmlns, storage), nullptr);
  xmlSetNs(node_, ns);
}

XMPPElement XMPPElement::takingDocument(_xmlDoc* document) {
  auto owner = std::make_shared<Document>(document);
  xmlNodePtr root = xmlDocGetRootElement(document);
  return XMPPElement(std::move(owner), root);
}

std::optional<XMPPElement> XMPPElement::elementWithXMLString(std::string_view text,
                                                             KQError* error) {
  std::optional<XMPPElement> result;
  std::optional<KQError> failure;
  XMPPParser parser(XMPPParser::Mode::Document,
                    {.didReadRoot = nullptr,
                     .didReadElement = [&result](const XMPPElement& element) { result = element; },
                     .didEnd = nullptr,
                     .didFail = [&failure](const KQError& reason) { failure = reason; }});
  parser.parseData(text.data(), text.size());
  parser.finish();
  if (!failure && !result) {
    failure = KQError{XMPPParser::kErrorDomain,
                      XMPPParser::kErrorMalformed,
                      {{"NSLocalizedDescription", "no element in the text"}}};
  }
  if (failure) {
    if (error != nullptr) {
      *error = *failure;
    }
    return std::nullopt;
  }
  return result;
}

XMPPElement XMPPElement::copy() const {
  auto document = std::make_shared<Document>(newDocument());
  xmlNodePtr node = xmlDocCopyNode(node_, document->doc, 1);
  if (node == nullptr) {
    throw std::bad_alloc();
  }
  // Namespaces declared above the copied node come along: libxml2 declares them again on the
  // copy.
  xmlDocSetRootElement(document->doc, node);
  return XMPPElement(std::move(document), node);
}

bool XMPPElement::isSoleHandleOnTree() const {
  return document_.use_count() == 1 && xmlDocGetRootElement(document_->doc) == node_;
}

std::string XMPPElement::name() const {
  return fromXML(node_->name);
}

std::string XMPPElement::xmlns() const {
  return node_->ns != nullptr ? fromXML(node_->ns->href) : std::string();
}

bool XMPPElement::isElement() const {
  return node_->type == XML_ELEMENT_NODE;
}

std::optional<std::string> XMPPElement::attributeStringValueForName(std::string_view name) const {
  if (!isElement()) {
    return std::nullopt;
  }
  xmlAttrPtr attribute = findAttribute(node_, name);
  if (attribute == nullptr) {
    return std::nullopt;
  }
  return attributeValue(attribute);
}

std::string XMPPElement::attributeStringValueForName(std::string_view name,
                                                     std::string_view defaultValue) const {
  auto value = attributeStringValueForName(name);
  return value ? std::move(*value) : std::string(defaultValue);
}

int XMPPElement::attributeIntValueForName(std::string_view name) const {
  const auto value = attributeStringValueForName(name);
  return value ? intValue(*value) : 0;
}

std::vector<std::pair<std::string, std::string>> XMPPElement::attributes() const {
  std::vector<std::pair<std::string, std::string>> result;
  if (!isElement()) {
    return result;
  }
  for (xmlAttrPtr attribute = node_->properties; attribute != nullptr;
       attribute = attribute->next) {
    std::string name;
    if (attribute->ns != nullptr && attribute->ns->prefix != nullptr) {
      name = fromXML(attribute->ns->prefix) + ":";
    }
    name += fromXML(attribute->name);
    result.emplace_back(std::move(name), attributeValue(attribute));
  }
  return result;
}

void XMPPElement::addAttributeWithName(std::string_view name, std::string_view value) {
  std::string nameStorage;
  std::string valueStorage;
  if (xmlAttrPtr existing = findAttribute(node_, name)) {
    // Replace the value in place, as plain text (xmlNodeSetContent would read entities).
    auto* attribute = reinterpret_cast<xmlNodePtr>(existing);
    xmlFreeNodeList(attribute->children);
    attribute->children = nullptr;
    attribute->last = nullptr;
    xmlNodePtr textNode = xmlNewDocText(node_->doc, xml(value, valueStorage));
    xmlAddChild(attribute, textNode);
    return;
  }
  // xmlNewProp stores the value as plain text: "&" stays "&" and is escaped when written.
  xmlNewProp(node_, xml(name, nameStorage), xml(value, valueStorage));
}

void XMPPElement::removeAttributeForName(std::string_view name) {
  if (xmlAttrPtr attribute = findAttribute(node_, name)) {
    xmlRemoveProp(attribute);
  }
}

std::optional<XMPPJID> XMPPElement::to() const {
  const auto value = attributeStringValueForName("to");
  return value ? XMPPJID::jidWithString(*value) : std::nullopt;
}

std::optional<XMPPJID> XMPPElement::from() const {
  const auto value = attributeStringValueForName("from");
  return value ? XMPPJID::jidWithString(*value) : std::nullopt;
}

std::optional<std::string> XMPPElement::elementID() const {
  return attributeStringValueForName("id");
}

std::string XMPPElement::stringValue() const {
  return takeXML(xmlNodeGetContent(node_));
}

void XMPPElement::setStringValue(std::string_view value) {
  xmlNodePtr child = node_->children;
  while (child != nullptr) {
    xmlNodePtr next = child->next;
    xmlUnlinkNode(child);
    xmlFreeNode(child);
    child = next;
  }
  if (!value.empty()) {
    std::string storage;
    xmlAddChild(node_, xmlNewDocText(node_->doc, xml(value, storage)));
  }
}

std::vector<XMPPElement> XMPPElement::children() const {
  std::vector<XMPPElement> result;
  for (xmlNodePtr child = node_->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE) {
      result.push_back(XMPPElement(document_, child));
    }
  }
  return result;
}

std::optional<XMPPElement> XMPPElement::elementForName(std::string_view name) const {
  for (xmlNodePtr child = node_->children; child != nullptr; child = child->next) {
    if (nameIs(child, name)) {
      return XMPPElement(document_, child);
    }
  }
  return std::nullopt;
}

std::optional<XMPPElement> XMPPElement::elementForName(std::string_view name,
                                                       std::string_view xmlns) const {
  for (xmlNodePtr child = node_->children; child != nullptr; child = child->next) {
    if (nameIs(child, name) && namespaceIs(child, xmlns)) {
      return XMPPElement(document_, child);
    }
  }
  return std::nullopt;
}

std::optional<XMPPElement> XMPPElement::firstElementInDocumentForName(
    std::string_view name, std::string_view xmlns) const {
  const ::xmlNode* root = xmlDocGetRootElement(node_->doc);
  for (const ::xmlNode* node = root; node != nullptr; node = nextInDocumentOrder(node)) {
    if (nameIs(node, name) && namespaceIs(node, xmlns)) {
      return XMPPElement(document_, const_cast<xmlNodePtr>(node));
    }
  }
  return std::nullopt;
}

std::vector<XMPPElement> XMPPElement::elementsForName(std::string_view name) const {
  std::vector<XMPPElement> result;
  for (xmlNodePtr child = node_->children; child != nullptr; child = child->next) {
    if (nameIs(child, name)) {
      result.push_back(XMPPElement(document_, child));
    }
  }
  return result;
}

std::optional<XMPPElement> XMPPElement::parent() const {
  if (node_->parent == nullptr || node_->parent->type != XML_ELEMENT_NODE) {
    return std::nullopt;
  }
  return XMPPElement(document_, node_->parent);
}

XMPPElement XMPPElement::addChild(const XMPPElement& child) {
  xmlNodePtr copy = xmlDocCopyNode(child.node_, node_->doc, 1);
  if (copy == nullptr) {
    throw std::bad_alloc();
  }
  xmlAddChild(node_, copy);
  if (copy->ns == nullptr && copy->type == XML_ELEMENT_NODE) {
    xmlSetNs(copy, xmlSearchNs(node_->doc, node_, nullptr));
  }
  return XMPPElement(document_, copy);
}

XMPPElement XMPPElement::addChildElement(std::string_view name) {
  std::string storage;
  xmlNodePtr child = xmlNewDocNode(node_->doc, xmlSearchNs(node_->doc, node_, nullptr),
                                   xml(name, storage), nullptr);
  xmlAddChild(node_, child);
  return XMPPElement(document_, child);
}

XMPPElement XMPPElement::addChildElement(std::string_view name, std::string_view xmlns) {
  std::string storage;
  xmlNodePtr child = xmlNewDocNode(node_->doc, nullptr, xml(name, storage), nullptr);
  xmlAddChild(node_, child);
  xmlSetNs(child, xmlNewNs(child, xml(xmlns, storage), nullptr));
  return XMPPElement(document_, child);
}

void XMPPElement::removeElementsForName(std::string_view name) {
  xmlNodePtr child = node_->children;
  while (child != nullptr) {
    xmlNodePtr next = child->next;
    if (nameIs(child, name)) {
      xmlUnlinkNode(child);
      xmlFreeNode(child);
    }
    child = next;
  }
}

std::string XMPPElement::XMLString() const {
  if (node_->type == XML_ATTRIBUTE_NODE || node_->type == XML_TEXT_NODE) {
    return stringValue();
  }
  std::string result;
  serialize(result, node_);
  return result;
}

void XMPPElement::declareXPathNamespace(std::string prefix, std::string uri) {
  for (auto& binding : xpathNamespaces_) {
    if (binding.first == prefix) {
      binding.second = std::move(uri);
      return;
    }
  }
  xpathNamespaces_.emplace_back(std::move(prefix), std::move(uri));
}

std::vector<XMPPElement> XMPPElement::nodesForXPath(std::string_view xpath) const {
  std::vector<XMPPElement> result;
  XMPPParser::initialize();
  xmlXPathContextPtr context = xmlXPathNewContext(node_->doc);
  if (context == nullptr) {
    return result;
  }
  context->node = node_;
  context->error = [](void* /*userData*/, xmlErrorPtr /*error*/) {};  // an empty result says it
  // Prefixes declared in the tree, from the top down so that inner declarations win.
  std::vector<xmlNodePtr> chain;
  for (xmlNodePtr node = node_; node != nullptr && node->type == XML_ELEMENT_NODE;
       node = node->parent) {
    chain.insert(chain.begin(), node);
  }
  for (xmlNodePtr node : chain) {
    for (xmlNsPtr ns = node->nsDef; ns != nullptr; ns = ns->next) {
      if (ns->prefix != nullptr) {
        xmlXPathRegisterNs(context, ns->prefix, ns->href);
      }
    }
  }
  for (const auto& [prefix, uri] : xpathNamespaces_) {
    xmlXPathRegisterNs(context, asXML(prefix.c_str()), asXML(uri.c_str()));
  }
  std::string storage;
  xmlXPathObjectPtr found = xmlXPathEvalExpression(xml(xpath, storage), context);
  if (found != nullptr && found->type == XPATH_NODESET && found->nodesetval != nullptr) {
    for (int i = 0; i < found->nodesetval->nodeNr; ++i) {
      xmlNodePtr node = found->nodesetval->nodeTab[i];
      if (node != nullptr && node->type != XML_NAMESPACE_DECL) {
        result.push_back(XMPPElement(document_, node));
      }
    }
  }
  xmlXPathFreeObject(found);
  xmlXPathFreeContext(context);
  return result;
}

}  // namespace kq::xmpp
