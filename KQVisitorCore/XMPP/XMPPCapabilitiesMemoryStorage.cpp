#include <KQVisitorCore/XMPP/XMPPCapabilitiesMemoryStorage.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <map>

namespace kq::xmpp {

struct XMPPCapabilitiesMemoryStorage::State {
  std::map<std::string, XMPPElement> byVer;
  std::map<std::string, std::string> verOf;  // full address -> ver
};

XMPPCapabilitiesMemoryStorage::XMPPCapabilitiesMemoryStorage()
    : state_(std::make_unique<Guarded<State>>()) {}

XMPPCapabilitiesMemoryStorage::~XMPPCapabilitiesMemoryStorage() = default;

const std::shared_ptr<XMPPCapabilitiesMemoryStorage>&
XMPPCapabilitiesMemoryStorage::sharedInstance() {
  static auto* storage = new std::shared_ptr<XMPPCapabilitiesMemoryStorage>(
      std::make_shared<XMPPCapabilitiesMemoryStorage>());
  return *storage;
}

bool XMPPCapabilitiesMemoryStorage::areCapabilitiesKnownForVer(const std::string& ver) const {
  return state_->with([&](const State& state) { return state.byVer.contains(ver); });
}

std::optional<XMPPElement> XMPPCapabilitiesMemoryStorage::capabilitiesForVer(
    const std::string& ver) const {
  return state_->with([&](const State& state) {
    const auto found = state.byVer.find(ver);
    return found == state.byVer.end() ? std::nullopt
                                      : std::optional<XMPPElement>(found->second.copy());
  });
}

std::optional<XMPPElement> XMPPCapabilitiesMemoryStorage::capabilitiesForJID(
    const XMPPJID& jid) const {
  const auto ver = state_->with([&](const State& state) {
    const auto found = state.verOf.find(jid.full());
    return found == state.verOf.end() ? std::nullopt : std::optional<std::string>(found->second);
  });
  if (!ver) {
    return std::nullopt;
  }
  return capabilitiesForVer(*ver);
}

void XMPPCapabilitiesMemoryStorage::setCapabilities(const std::string& ver,
                                                    const XMPPElement& query) {
  XMPPElement copy = query.copy();
  state_->with([&](State& state) { state.byVer.insert_or_assign(ver, std::move(copy)); });
}

void XMPPCapabilitiesMemoryStorage::setVerForJID(const XMPPJID& jid, const std::string& ver) {
  state_->with([&](State& state) { state.verOf.insert_or_assign(jid.full(), ver); });
}

}  // namespace kq::xmpp
