#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// libxml2's own names for its document and node types.
struct _xmlDoc;   // NOLINT(bugprone-reserved-identifier)
struct _xmlNode;  // NOLINT(bugprone-reserved-identifier)

namespace kq::xmpp {

/// A node of an XML tree: an XMPP stanza, one of its children, or (from nodesForXPath) a text
/// or attribute node.
///
/// Each tree is its own small libxml2 document. An XMPPElement is a handle on one node of it:
/// copies of a handle refer to the same node and share the document, which lives as long as any
/// handle on it, so that changes made through one handle show through every other (the stanza
/// is one object, as elsewhere in the library). copy() makes an independent tree.
///
/// Attributes keep the order in which they were added (or parsed); values are plain text, and
/// serialising escapes what XML requires ("&", "<", ">", quotes, and carriage returns, and in
/// attribute values line feeds and tabs, as character references), in names' namespaces too,
/// so any value round-trips.
///
/// Whatever text a caller puts in as a value (namespaces, attribute values, string values), the
/// tree stays valid XML 1.0, so a stanza can never break the stream it is written to: every
/// byte sequence that is not valid UTF-8, and every character XML 1.0 forbids (NUL and the
/// other control characters but tab, line feed and carriage return; surrogates; U+FFFE and
/// U+FFFF), is replaced by U+FFFD REPLACEMENT CHARACTER: a forbidden character by one, a
/// malformed sequence by one per byte. A NUL is replaced like any other, so it never cuts a
/// text short. Valid text is kept as it is. Names (of elements and attributes) are the
/// caller's own constants and must be XML names; they are cleaned the same way but not
/// checked further.
///
/// Reading a tree (every const member, copy() included) from several threads at once is safe:
/// no read changes the tree. Changing it while another thread uses it is not. The stream hands each
/// received stanza to its delegates: treat it as read-only, or copy() it first.
class KQ_EXPORT XMPPElement {
 public:
  /// A new element `name` (no namespace: it takes the namespace of the element it is added to).
  explicit XMPPElement(std::string_view name);
  /// A new element `name` that declares `xmlns` as its default namespace.
  XMPPElement(std::string_view name, std::string_view xmlns);

  /// Parses one XML element from `text` (no DTD, no entity declarations, nothing loaded from
  /// the network). nullopt for anything else, with the reason in `error` when given.
  static std::optional<XMPPElement> elementWithXMLString(std::string_view text,
                                                         KQError* error = nullptr);

  /// An independent deep copy, in a document of its own.
  [[nodiscard]] XMPPElement copy() const;

  /// True when both handles refer to the same node.
  [[nodiscard]] bool isSameNode(const XMPPElement& other) const { return node_ == other.node_; }

  // --- Name and namespace -----------------------------------------------------------------

  /// The local name ("message"); "text" for a text node; the attribute's name for an attribute.
  [[nodiscard]] std::string name() const;
  /// The namespace URI of the node; empty when it has none.
  [[nodiscard]] std::string xmlns() const;
  /// True for element nodes (false for text and attribute nodes).
  [[nodiscard]] bool isElement() const;

  // --- Attributes ---------------------------------------------------------------------------

  /// The value of the attribute `name` (without a namespace, or "xml:lang"); nullopt when absent.
  [[nodiscard]] std::optional<std::string> attributeStringValueForName(std::string_view name) const;
  /// attributeStringValueForName, or `defaultValue` when absent.
  [[nodiscard]] std::string attributeStringValueForName(std::string_view name,
                                                        std::string_view defaultValue) const;
  /// The attribute read as Foundation's intValue reads text (0 when absent).
  [[nodiscard]] int attributeIntValueForName(std::string_view name) const;
  /// Every attribute as (qualified name, value), in document order.
  [[nodiscard]] std::vector<std::pair<std::string, std::string>> attributes() const;
  /// Sets attribute `name` to `value`: an existing attribute keeps its place, a new one is
  /// added after the others. "xmlns" is written as a plain attribute.
  void addAttributeWithName(std::string_view name, std::string_view value);
  /// Removes the attribute `name`; nothing happens when it is absent.
  void removeAttributeForName(std::string_view name);

  // --- Stanza addressing ----------------------------------------------------------------

  /// The "to" attribute as an address; nullopt when absent or not an address.
  [[nodiscard]] std::optional<XMPPJID> to() const;
  /// The "from" attribute as an address; nullopt when absent or not an address.
  [[nodiscard]] std::optional<XMPPJID> from() const;
  /// The "id" attribute; nullopt when absent.
  [[nodiscard]] std::optional<std::string> elementID() const;

  // --- Content ----------------------------------------------------------------------------

  /// The text of the node and of all its descendants, concatenated.
  [[nodiscard]] std::string stringValue() const;
  /// Replaces the children with one text node (none for an empty value).
  void setStringValue(std::string_view value);

  /// The child elements, in order.
  [[nodiscard]] std::vector<XMPPElement> children() const;
  /// The first child element called `name` (any namespace); nullopt when there is none.
  [[nodiscard]] std::optional<XMPPElement> elementForName(std::string_view name) const;
  /// The first child element called `name` in namespace `xmlns`.
  [[nodiscard]] std::optional<XMPPElement> elementForName(std::string_view name,
                                                          std::string_view xmlns) const;
  /// The first element called `name` in namespace `xmlns` anywhere in this node's tree (the
  /// whole document, this node's ancestors included), in document order: what the XPath query
  /// "//p:name" (p bound to `xmlns`) finds first, without the cost of evaluating one.
  [[nodiscard]] std::optional<XMPPElement> firstElementInDocumentForName(
      std::string_view name, std::string_view xmlns) const;
  /// Every child element called `name`.
  [[nodiscard]] std::vector<XMPPElement> elementsForName(std::string_view name) const;
  /// The parent element; nullopt at the top of the tree.
  [[nodiscard]] std::optional<XMPPElement> parent() const;

  /// Appends a copy of `child` (and its subtree) to this element; returns the handle of the
  /// copy. A child without a namespace of its own takes this element's.
  XMPPElement addChild(const XMPPElement& child);
  /// Appends a new element `name` (in this element's namespace) and returns it.
  XMPPElement addChildElement(std::string_view name);
  /// Appends a new element `name` declaring the default namespace `xmlns` and returns it.
  XMPPElement addChildElement(std::string_view name, std::string_view xmlns);
  /// Removes every child element called `name`.
  void removeElementsForName(std::string_view name);

  // --- Serialising and querying -------------------------------------------------------------

  /// The element as compact XML text, attributes in order, no XML declaration.
  [[nodiscard]] std::string XMLString() const;
  /// The same text as XMLString(); kept for readers who know the stanza API by this name.
  [[nodiscard]] std::string compactXMLString() const { return XMLString(); }

  /// Binds `prefix` to `uri` for this handle's XPath queries (the XML itself does not change).
  void declareXPathNamespace(std::string prefix, std::string uri);
  /// The nodes matching `xpath`, evaluated with this node as the context node; prefixes bound
  /// by declareXPathNamespace and those declared in the tree are known. Empty for an invalid
  /// expression or no match.
  [[nodiscard]] std::vector<XMPPElement> nodesForXPath(std::string_view xpath) const;

  /// Whether this handle stands at the root of its tree and no other handle shares the tree:
  /// such a tree can be taken over instead of copied. For the library's own use.
  [[nodiscard]] bool isSoleHandleOnTree() const;

  /// The underlying node, for the library's own use (stream parser, serialiser).
  [[nodiscard]] _xmlNode* xmlNode() const { return node_; }

  /// The element at the root of `document`, which the handle takes over (and frees with its
  /// last handle). For the library's parser.
  static XMPPElement takingDocument(_xmlDoc* document);

  /// Owner of a libxml2 document; private to XMPPElement.cpp.
  struct Document;

 private:
  XMPPElement(std::shared_ptr<Document> document, _xmlNode* node);

  std::shared_ptr<Document> document_;
  _xmlNode* node_ = nullptr;
  std::vector<std::pair<std::string, std::string>> xpathNamespaces_;
};

}  // namespace kq::xmpp
