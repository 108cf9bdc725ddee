#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <memory>
#include <optional>
#include <string>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

/// Entity capabilities (XEP-0115) kept in memory: the disco#info answer for each verification
/// string, and which verification string each address announced. Thread-safe.
class KQ_EXPORT XMPPCapabilitiesMemoryStorage {
 public:
  /// An empty storage of its own (sharedInstance() is the one the process shares).
  XMPPCapabilitiesMemoryStorage();
  XMPPCapabilitiesMemoryStorage(const XMPPCapabilitiesMemoryStorage&) = delete;
  XMPPCapabilitiesMemoryStorage& operator=(const XMPPCapabilitiesMemoryStorage&) = delete;
  ~XMPPCapabilitiesMemoryStorage();

  /// The process-wide storage.
  static const std::shared_ptr<XMPPCapabilitiesMemoryStorage>& sharedInstance();

  /// True when a disco#info answer is stored for the verification string `ver`.
  [[nodiscard]] bool areCapabilitiesKnownForVer(const std::string& ver) const;
  /// The disco#info `<query/>` stored for `ver` (a copy); nullopt when unknown.
  [[nodiscard]] std::optional<XMPPElement> capabilitiesForVer(const std::string& ver) const;
  /// The disco#info `<query/>` (a copy) for what the full address `jid` announced; nullopt when
  /// unknown.
  [[nodiscard]] std::optional<XMPPElement> capabilitiesForJID(const XMPPJID& jid) const;
  /// Stores a copy of `query` for `ver`.
  void setCapabilities(const std::string& ver, const XMPPElement& query);
  /// Records that the full address `jid` announced the verification string `ver`.
  void setVerForJID(const XMPPJID& jid, const std::string& ver);

 private:
  // The answers and the addresses' verification strings, under the storage's lock; defined in
  // XMPPCapabilitiesMemoryStorage.cpp.
  struct State;

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq::xmpp
