#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>

#include <libxml/parser.h>
#include <libxml/parserInternals.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <libxml/xmlmemory.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <mutex>

namespace kq::xmpp {

namespace {

const xmlChar* asXML(const char* text) {
  return reinterpret_cast<const xmlChar*>(text);
}

std::string text(const xmlChar* value) {
  return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
}

std::string text(const xmlChar* begin, const xmlChar* end) {
  return std::string(reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin));
}

// Whether `value` is well-formed UTF-8: no overlong forms, no surrogates, nothing past U+10FFFF.
bool isWellFormedUTF8(const xmlChar* value, int length) {
  for (int i = 0; i < length;) {
    UChar32 c = 0;
    U8_NEXT(value, i, length, c);
    if (c < 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

struct XMPPParser::Impl {
  Impl(Mode parserMode, Callbacks parserCallbacks)
      : mode(parserMode), callbacks(std::move(parserCallbacks)) {}
  ~Impl() {
    if (ctxt != nullptr) {
      xmlFreeParserCtxt(ctxt);
    }
    if (doc != nullptr) {
      xmlFreeDoc(doc);
    }
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void start();
  void fail(long code, const std::string& message);
  void count(std::size_t bytes);
  xmlNsPtr namespaceFor(xmlNodePtr node, const xmlChar* prefix, const xmlChar* uri) const;
  void startElement(const xmlChar* localname, const xmlChar* prefix, const xmlChar* uri,
                    int namespaceCount, const xmlChar** namespaces, int attributeCount,
                    const xmlChar** attributes);
  void endElement();
  void addText(const xmlChar* value, int length);

  // The libxml2 callbacks; `context` is the Impl.
  static void onStartElement(void* context, const xmlChar* localname, const xmlChar* prefix,
                             const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                             int attributeCount, int defaultedCount, const xmlChar** attributes);
  static void onEndElement(void* context, const xmlChar* localname, const xmlChar* prefix,
                           const xmlChar* uri);
  static void onCharacters(void* context, const xmlChar* value, int length);
  static void onCData(void* context, const xmlChar* value, int length);
  static void onInternalSubset(void* context, const xmlChar* name, const xmlChar* externalId,
                               const xmlChar* systemId);
  static void onEntityDecl(void* context, const xmlChar* name, int type, const xmlChar* publicId,
                           const xmlChar* systemId, xmlChar* content);
  static void onStructuredError(void* context, xmlErrorPtr error);

  const Mode mode;
  Callbacks callbacks;
  xmlSAXHandler sax{};
  xmlParserCtxtPtr ctxt = nullptr;
  int depth = 0;
  // The element being built (its own document) and the node that receives children and text.
  xmlDocPtr doc = nullptr;
  xmlNodePtr current = nullptr;
  // (prefix, URI) declared by the stream header; the empty prefix is the default namespace.
  std::size_t elementSize = 0;    // text held by the element being built
  std::size_t sinceBoundary = 0;  // bytes fed since the last element ended
  bool failed = false;
  bool stopped = false;
};

void XMPPParser::Impl::start() {
  XMPPParser::initialize();
  sax.initialized = XML_SAX2_MAGIC;
  sax.startElementNs = onStartElement;
  sax.endElementNs = onEndElement;
  sax.characters = onCharacters;
  sax.ignorableWhitespace = onCharacters;
  sax.cdataBlock = onCData;
  sax.internalSubset = onInternalSubset;
  sax.externalSubset = onInternalSubset;
  sax.entityDecl = onEntityDecl;
  sax.serror = onStructuredError;
  ctxt = xmlCreatePushParserCtxt(&sax, this, nullptr, 0, nullptr);
  if (ctxt == nullptr) {
    fail(kErrorMalformed, "cannot create an XML parser");
    return;
  }
  xmlCtxtUseOptions(ctxt, XML_PARSE_NONET | XML_PARSE_NOENT);
}

void XMPPParser::Impl::fail(long code, const std::string& message) {
  if (failed || stopped) {
    return;
  }
  failed = true;
  if (ctxt != nullptr) {
    xmlStopParser(ctxt);
  }
  if (callbacks.didFail) {
    KQError error{kErrorDomain, code, nlohmann::ordered_json::object()};
    error.userInfo["NSLocalizedDescription"] = message;
    callbacks.didFail(error);
  }
}

void XMPPParser::Impl::count(std::size_t bytes) {
  elementSize += bytes;
  if (elementSize > kMaxElementSize) {
    fail(kErrorTooLarge, "an element is larger than 1 MiB");
  }
}

xmlNsPtr XMPPParser::Impl::namespaceFor(xmlNodePtr node, const xmlChar* prefix,
                                        const xmlChar* uri) const {
  if (uri == nullptr) {
    return nullptr;
  }
  xmlNsPtr ns = xmlSearchNs(doc, node, prefix);
  if (ns != nullptr && xmlStrEqual(ns->href, uri) != 0) {
    return ns;
  }
  // Declared further out (on the stream header): declare it again here.
  return xmlNewNs(node, uri, prefix);
}

void XMPPParser::Impl::startElement(const xmlChar* localname, const xmlChar* prefix,
                                    const xmlChar* uri, int namespaceCount,
                                    const xmlChar** namespaces, int attributeCount,
                                    const xmlChar** attributes) {
  if (mode == Mode::Stream && depth == 0) {
    if (xmlStrEqual(localname, asXML("stream")) == 0 || uri == nullptr ||
        std::string_view(reinterpret_cast<const char*>(uri)) != kXMPPStreamNamespace) {
      fail(kErrorNotAStream, "the stream does not start with <stream:stream>");
      return;
    }
    std::vector<std::pair<std::string, std::string>> rootAttributes;
    for (int i = 0; i < attributeCount; ++i) {
      const xmlChar** attribute = attributes + 5 * static_cast<std::ptrdiff_t>(i);
      std::string name = attribute[1] != nullptr ? text(attribute[1]) + ":" : std::string();
      name += text(attribute[0]);
      rootAttributes.emplace_back(std::move(name), text(attribute[3], attribute[4]));
    }
    depth = 1;
    if (callbacks.didReadRoot) {
      callbacks.didReadRoot(rootAttributes);
    }
    return;
  }
  // An undeclared prefix: keep the element under its qualified name, as attributes are kept,
  // so that what is written back reads the same.
  const std::string qualifiedName =
      prefix != nullptr && uri == nullptr ? text(prefix) + ":" + text(localname) : std::string();
  const xmlChar* name = qualifiedName.empty() ? localname : asXML(qualifiedName.c_str());
  xmlNodePtr node = nullptr;
  if (doc == nullptr) {
    doc = xmlNewDoc(asXML("1.0"));
    node = xmlNewDocNode(doc, nullptr, name, nullptr);
    xmlDocSetRootElement(doc, node);
    elementSize = 0;
  } else {
    node = xmlNewDocNode(doc, nullptr, name, nullptr);
    xmlAddChild(current, node);
  }
  current = node;
  ++depth;
  count(static_cast<std::size_t>(xmlStrlen(name)));
  for (int i = 0; i < namespaceCount; ++i) {
    xmlNewNs(node, namespaces[2 * static_cast<std::ptrdiff_t>(i) + 1],
             namespaces[2 * static_cast<std::ptrdiff_t>(i)]);
  }
  xmlSetNs(node, namespaceFor(node, prefix, uri));
  // Attributes are made unattached and linked here, in document order: attaching each through
  // libxml2 walks the whole property list every time.
  xmlAttrPtr lastProperty = nullptr;
  for (int i = 0; i < attributeCount && !failed; ++i) {
    const xmlChar** attribute = attributes + 5 * static_cast<std::ptrdiff_t>(i);
    const int length = static_cast<int>(attribute[4] - attribute[3]);
    count(static_cast<std::size_t>(length) + static_cast<std::size_t>(xmlStrlen(attribute[0])));
    xmlNsPtr ns = namespaceFor(node, attribute[1], attribute[2]);
    xmlAttrPtr property = nullptr;
    if (ns == nullptr && attribute[1] != nullptr) {
      // An undeclared prefix: keep the attribute under its qualified name.
      const std::string qualified = text(attribute[1]) + ":" + text(attribute[0]);
      property = xmlNewNsProp(nullptr, nullptr, asXML(qualified.c_str()), nullptr);
    } else {
      property = xmlNewNsProp(nullptr, ns, attribute[0], nullptr);
    }
    // The value goes straight from the parser's buffer into the attribute's text node.
    xmlNodePtr value = xmlNewDocTextLen(doc, attribute[3], length);
    if (property == nullptr || value == nullptr) {
      xmlFreeProp(property);
      xmlFreeNode(value);
      fail(kErrorMalformed, "out of memory");
      return;
    }
    property->parent = node;
    property->doc = doc;
    if (lastProperty == nullptr) {
      node->properties = property;
    } else {
      lastProperty->next = property;
      property->prev = lastProperty;
    }
    lastProperty = property;
    value->parent = reinterpret_cast<xmlNodePtr>(property);
    property->children = value;
    property->last = value;
  }
}

void XMPPParser::Impl::endElement() {
  const int topLevel = mode == Mode::Stream ? 1 : 0;
  if (mode == Mode::Stream && depth == 1) {
    depth = 0;
    if (callbacks.didEnd) {
      callbacks.didEnd();
    }
    return;
  }
  --depth;
  if (depth > topLevel) {
    current = current->parent;
    return;
  }
  // A whole element: it leaves the parser in a document of its own.
  XMPPElement element = XMPPElement::takingDocument(doc);
  doc = nullptr;
  current = nullptr;
  sinceBoundary = 0;
  if (callbacks.didReadElement) {
    callbacks.didReadElement(element);
  }
}

void XMPPParser::Impl::addText(const xmlChar* value, int length) {
  if (doc == nullptr || current == nullptr) {
    sinceBoundary = 0;  // white space between elements (a keep-alive)
    return;
  }
  count(static_cast<std::size_t>(length));
  if (!failed) {
    xmlNodeAddContentLen(current, value, length);
  }
}

void XMPPParser::Impl::onStartElement(void* context, const xmlChar* localname,
                                      const xmlChar* prefix, const xmlChar* uri, int namespaceCount,
                                      const xmlChar** namespaces, int attributeCount,
                                      int /*defaultedCount*/, const xmlChar** attributes) {
  auto* impl = static_cast<Impl*>(context);
  if (impl->failed || impl->stopped) {
    return;
  }
  try {
    impl->startElement(localname, prefix, uri, namespaceCount, namespaces, attributeCount,
                       attributes);
  } catch (const std::exception& exception) {
    impl->fail(kErrorMalformed, exception.what());
  }
}

void XMPPParser::Impl::onEndElement(void* context, const xmlChar* /*localname*/,
                                    const xmlChar* /*prefix*/, const xmlChar* /*uri*/) {
  auto* impl = static_cast<Impl*>(context);
  if (impl->failed || impl->stopped) {
    return;
  }
  try {
    impl->endElement();
  } catch (const std::exception& exception) {
    impl->fail(kErrorMalformed, exception.what());
  }
}

void XMPPParser::Impl::onCharacters(void* context, const xmlChar* value, int length) {
  auto* impl = static_cast<Impl*>(context);
  if (impl->failed || impl->stopped) {
    return;
  }
  impl->addText(value, length);
}

// libxml2's push parser lets overlong UTF-8 forms through in CDATA sections, which would then be
// written out as text no XML reader accepts: such a section is refused as other bad UTF-8 is.
void XMPPParser::Impl::onCData(void* context, const xmlChar* value, int length) {
  if (!isWellFormedUTF8(value, length)) {
    static_cast<Impl*>(context)->fail(kErrorMalformed,
                                      "Input is not proper UTF-8 in a CDATA section");
    return;
  }
  onCharacters(context, value, length);
}

void XMPPParser::Impl::onInternalSubset(void* context, const xmlChar* /*name*/,
                                        const xmlChar* /*externalId*/,
                                        const xmlChar* /*systemId*/) {
  static_cast<Impl*>(context)->fail(kErrorDeclarationRefused,
                                    "document type declarations are not allowed");
}

void XMPPParser::Impl::onEntityDecl(void* context, const xmlChar* /*name*/, int /*type*/,
                                    const xmlChar* /*publicId*/, const xmlChar* /*systemId*/,
                                    xmlChar* /*content*/) {
  static_cast<Impl*>(context)->fail(kErrorDeclarationRefused,
                                    "entity declarations are not allowed");
}

void XMPPParser::Impl::onStructuredError(void* context, xmlErrorPtr error) {
  if (error == nullptr || error->level != XML_ERR_FATAL) {
    return;  // warnings and namespace errors do not stop a stream
  }
  std::string message = error->message != nullptr ? error->message : "malformed XML";
  while (!message.empty() && message.back() == '\n') {
    message.pop_back();
  }
  static_cast<Impl*>(context)->fail(kErrorMalformed, message);
}

namespace {

// Pass-through allocation functions for libxml2; see XMPPParser::initialize().
void* allocateForXML(std::size_t size) {
  return std::malloc(size);
}
void* reallocateForXML(void* memory, std::size_t size) {
  return std::realloc(memory, size);
}
void freeForXML(void* memory) {
  std::free(memory);
}

}  // namespace

void XMPPParser::initialize() {
  static std::once_flag once;
  std::call_once(once, [] {
    // libxml2 frees its process-wide state (the dictionaries' lock among it) from a library
    // destructor as the process exits, while a stream's thread may still be freeing a parser
    // (a connection closing as the host returns from main). It leaves that state alone when the
    // process has installed its own allocation functions, so unless the host already has, we
    // install pass-through ones and leave the memory to the process's exit.
    xmlFreeFunc freeFunction = nullptr;
    xmlMallocFunc mallocFunction = nullptr;
    xmlReallocFunc reallocFunction = nullptr;
    xmlStrdupFunc strdupFunction = nullptr;
    if (xmlMemGet(&freeFunction, &mallocFunction, &reallocFunction, &strdupFunction) == 0 &&
        freeFunction == &std::free) {
      xmlMemSetup(freeForXML, allocateForXML, reallocateForXML, strdupFunction);
    }
    xmlInitParser();
  });
}

XMPPParser::XMPPParser(Mode mode, Callbacks callbacks)
    : impl_(std::make_unique<Impl>(mode, std::move(callbacks))) {
  impl_->start();
}

XMPPParser::~XMPPParser() = default;

void XMPPParser::parseData(const char* data, std::size_t length) {
  Impl& impl = *impl_;
  while (length > 0 && !impl.failed && !impl.stopped) {
    // libxml2 takes an int length: feed very large buffers in pieces.
    const std::size_t piece = std::min<std::size_t>(length, 1U << 20U);
    impl.sinceBoundary += piece;
    const int status = xmlParseChunk(impl.ctxt, data, static_cast<int>(piece), 0);
    data += piece;
    length -= piece;
    if (status != 0 && !impl.failed && !impl.stopped) {
      impl.fail(kErrorMalformed, "malformed XML");
    }
    if (!impl.failed && !impl.stopped && impl.sinceBoundary > kMaxElementSize) {
      impl.fail(kErrorTooLarge, "an element is larger than 1 MiB");
    }
  }
}

void XMPPParser::finish() {
  Impl& impl = *impl_;
  if (impl.failed || impl.stopped) {
    return;
  }
  const int status = xmlParseChunk(impl.ctxt, nullptr, 0, 1);
  if (!impl.failed && (status != 0 || impl.doc != nullptr)) {
    impl.fail(kErrorMalformed, "the input ended inside an element");
  }
}

void XMPPParser::stop() {
  impl_->stopped = true;
  if (impl_->ctxt != nullptr) {
    xmlStopParser(impl_->ctxt);
  }
}

bool XMPPParser::hasFailed() const {
  return impl_->failed;
}

}  // namespace kq::xmpp
