#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>

namespace kq::xmpp {

const std::shared_ptr<XMPPCapabilitiesMemoryStorage>&
XMPPCapabilitiesMemoryStorage::sharedInstance() {
  static auto* storage = new std::shared_ptr<XMPPCapabilitiesMemoryStorage>(
      std::make_shared<XMPPCapabilitiesMemoryStorage>());
  return *storage;
}

bool XMPPCapabilitiesMemoryStorage::areCapabilitiesKnownForVer(const std::string& ver) const {
  std::scoped_lock lock(mutex_);
  return byVer_.contains(ver);
}

std::optional<XMPPElement> XMPPCapabilitiesMemoryStorage::capabilitiesForVer(
    const std::string& ver) const {
  std::scoped_lock lock(mutex_);
  const auto found = byVer_.find(ver);
  return found == byVer_.end() ? std::nullopt : std::optional<XMPPElement>(found->second.copy());
}

std::optional<XMPPElement> XMPPCapabilitiesMemoryStorage::capabilitiesForJID(
    const XMPPJID& jid) const {
  std::string ver;
  {
    std::scoped_lock lock(mutex_);
    const auto found = verOf_.find(jid.full());
    if (found == verOf_.end()) {
      return std::nullopt;
    }
    ver = found->second;
  }
  return capabilitiesForVer(ver);
}

void XMPPCapabilitiesMemoryStorage::setCapabilities(const std::string& ver,
                                                    const XMPPElement& query) {
  XMPPElement copy = query.copy();
  std::scoped_lock lock(mutex_);
  byVer_.insert_or_assign(ver, std::move(copy));
}

void XMPPCapabilitiesMemoryStorage::setVerForJID(const XMPPJID& jid, const std::string& ver) {
  std::scoped_lock lock(mutex_);
  verOf_.insert_or_assign(jid.full(), ver);
}

}  // namespace kq::xmpp
