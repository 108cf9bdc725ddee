#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <memory>
#include <optional>
#include <string>

namespace kq::xmpp {

class XMPPvCardTempModule;

/// vCard-based avatars (XEP-0153): announces the hash of our own photo in available presences
/// once our vCard is known, and fetches a contact's vCard again when its announced photo hash
/// differs from the stored one.
class KQ_EXPORT XMPPvCardAvatarModule : public XMPPModule {
 public:
  /// A module that reads and fetches vCards through `vCardTempModule` (which must be activated
  /// on the same stream to fetch), to activate() on a stream. `dispatchQueue` is handed to
  /// XMPPModule; the module does its own work on the stream's queue.
  explicit XMPPvCardAvatarModule(std::shared_ptr<XMPPvCardTempModule> vCardTempModule,
                                 std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPvCardAvatarModule() override;

  /// The vCard module given at construction, shared with whoever else holds it.
  [[nodiscard]] const std::shared_ptr<XMPPvCardTempModule>& xmppvCardTempModule() const {
    return vCardTempModule_;
  }
  /// The decoded photo of `jid` from the vCard storage; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> photoDataForJID(const XMPPJID& jid) const;

 protected:
  void streamDidReceivePresence(const XMPPPresence& presence) override;
  void streamWillSendElement(XMPPElement& element) override;

 private:
  const std::shared_ptr<XMPPvCardTempModule> vCardTempModule_;
};

}  // namespace kq::xmpp
