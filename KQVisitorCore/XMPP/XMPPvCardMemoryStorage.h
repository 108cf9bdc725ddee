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

/// vCards (vcard-temp) kept in memory by bare address. Thread-safe.
class KQ_EXPORT XMPPvCardMemoryStorage {
 public:
  /// An empty storage of its own (sharedInstance() is the one the process shares).
  XMPPvCardMemoryStorage();
  XMPPvCardMemoryStorage(const XMPPvCardMemoryStorage&) = delete;
  XMPPvCardMemoryStorage& operator=(const XMPPvCardMemoryStorage&) = delete;
  ~XMPPvCardMemoryStorage();

  /// The process-wide storage.
  static const std::shared_ptr<XMPPvCardMemoryStorage>& sharedInstance();

  /// A copy of the `<vCard/>` stored for the bare address of `jid`; nullopt when none is.
  [[nodiscard]] std::optional<XMPPElement> vCardTempForJID(const XMPPJID& jid) const;
  /// Stores a copy of `vCard` for the bare address of `jid`.
  void setvCardTemp(const XMPPElement& vCard, const XMPPJID& jid);
  /// The lower-case hex SHA-1 of the vCard's photo; empty for a vCard without a photo;
  /// nullopt when no vCard is stored.
  [[nodiscard]] std::optional<std::string> photoHashForJID(const XMPPJID& jid) const;
  /// The decoded photo; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> photoDataForJID(const XMPPJID& jid) const;

 private:
  // The vCards, under the storage's lock; defined in XMPPvCardMemoryStorage.cpp.
  struct State;

  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq::xmpp
