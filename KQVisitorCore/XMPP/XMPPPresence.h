#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <optional>
#include <string>

namespace kq::xmpp {

/// A `<presence/>` stanza. A handle like XMPPElement: copies share the stanza.
class KQ_EXPORT XMPPPresence : public XMPPElement {
 public:
  /// A plain available presence: `<presence/>`.
  XMPPPresence();
  /// `<presence type="..." to="..."/>`; an absent type or address writes no attribute.
  XMPPPresence(std::optional<std::string> type, const std::optional<XMPPJID>& to);
  /// The same stanza seen as a presence (no check of the element's name).
  explicit XMPPPresence(const XMPPElement& element) : XMPPElement(element) {}

  /// The "type" attribute, "available" when there is none.
  [[nodiscard]] std::string type() const;
  /// The text of `<show/>`; nullopt when absent.
  [[nodiscard]] std::optional<std::string> show() const;
  /// The text of `<status/>`; nullopt when absent.
  [[nodiscard]] std::optional<std::string> status() const;
};

}  // namespace kq::xmpp
