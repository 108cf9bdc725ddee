#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <memory>

namespace kq::xmpp {

template <class Delegate>
class XMPPDelegateList;

class XMPPvCardMemoryStorage;
class XMPPvCardTempModule;

/// What the vCard module tells its delegates, on the queue each was added with.
class KQ_EXPORT XMPPvCardTempModuleDelegate {
 public:
  XMPPvCardTempModuleDelegate() = default;
  XMPPvCardTempModuleDelegate(const XMPPvCardTempModuleDelegate&) = delete;
  XMPPvCardTempModuleDelegate& operator=(const XMPPvCardTempModuleDelegate&) = delete;
  virtual ~XMPPvCardTempModuleDelegate();

  /// A vCard was fetched and stored: `vCardTemp` for the bare address `jid` (an empty `<vCard/>`
  /// when the answer carried none).
  virtual void xmppvCardTempModuleDidReceivevCardTemp(XMPPvCardTempModule& /*sender*/,
                                                      const XMPPElement& /*vCardTemp*/,
                                                      const XMPPJID& /*jid*/) {}
};

/// vCards (XEP-0054): fetches them into the storage, and answers vCard requests addressed to
/// this client with our own (or an empty one).
class KQ_EXPORT XMPPvCardTempModule : public XMPPModule {
 public:
  /// A module that keeps vCards in `storage`, to activate() on a stream. `dispatchQueue` is
  /// handed to XMPPModule; answers are stored on the stream's queue.
  explicit XMPPvCardTempModule(std::shared_ptr<XMPPvCardMemoryStorage> storage,
                               std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPvCardTempModule() override;

  /// The storage given at construction, shared with whoever else holds it.
  [[nodiscard]] const std::shared_ptr<XMPPvCardMemoryStorage>& xmppvCardTempModuleStorage() const {
    return storage_;
  }

  /// Fetches the vCard of the bare address of `jid` unless the storage has it (or
  /// `ignoreStorage`). The answer is stored on the stream's queue, then the delegates hear
  /// did-receive-vCard; a refusal or no answer within 60 s changes nothing. Does nothing while
  /// the module is inactive.
  void fetchvCardTempForJID(const XMPPJID& jid, bool ignoreStorage = false);
  /// Our own vCard from the storage; nullopt when unknown.
  [[nodiscard]] std::optional<XMPPElement> myvCardTemp() const;

  /// Adds `delegate`, held weakly and called on `queue`.
  void addDelegate(const std::shared_ptr<XMPPvCardTempModuleDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
  /// Removes `delegate`; calls already posted for it are dropped.
  void removeDelegate(const XMPPvCardTempModuleDelegate* delegate);

 protected:
  bool streamDidReceiveIQ(const XMPPIQ& iq) override;

 private:
  const std::shared_ptr<XMPPvCardMemoryStorage> storage_;
  std::unique_ptr<XMPPDelegateList<XMPPvCardTempModuleDelegate>> delegates_;
};

}  // namespace kq::xmpp
