#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

/// An `<iq/>` stanza. A handle like XMPPElement: copies share the stanza.
class KQ_EXPORT XMPPIQ : public XMPPElement {
 public:
  /// `<iq type="..." to="..." id="...">` with a copy of `child` inside; absent parts are left out.
  XMPPIQ(std::string_view type, const std::optional<XMPPJID>& to,
         const std::optional<std::string>& elementID,
         const std::optional<XMPPElement>& child = std::nullopt);
  /// The same stanza seen as an IQ (no check of the element's name).
  explicit XMPPIQ(const XMPPElement& element) : XMPPElement(element) {}

  /// A "result" answering `request`: addressed to its sender, with its id.
  static XMPPIQ resultIQ(const XMPPIQ& request, const std::optional<XMPPElement>& child);
  /// An "error" answering `request` with `condition` (a stanza error such as
  /// "service-unavailable") of type `errorType` ("cancel", ...).
  static XMPPIQ errorIQ(const XMPPIQ& request, std::string_view errorType,
                        std::string_view condition);

  /// The "type" attribute; empty when absent.
  [[nodiscard]] std::string type() const;
  /// The type is "get".
  [[nodiscard]] bool isGetIQ() const { return type() == "get"; }
  /// The type is "set".
  [[nodiscard]] bool isSetIQ() const { return type() == "set"; }
  /// The type is "result".
  [[nodiscard]] bool isResultIQ() const { return type() == "result"; }
  /// The type is "error".
  [[nodiscard]] bool isErrorIQ() const { return type() == "error"; }
  /// A get or set: a request that must be answered.
  [[nodiscard]] bool requiresResponse() const { return isGetIQ() || isSetIQ(); }
  /// The first child element other than `<error/>`; nullopt when there is none.
  [[nodiscard]] std::optional<XMPPElement> childElement() const;
};

}  // namespace kq::xmpp
