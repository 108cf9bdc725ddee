#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/XMPPEncoding.h>

#include <map>

namespace kq::xmpp {

struct XMPPvCardMemoryStorage::State {
  std::map<std::string, XMPPElement> vCards;  // by bare address
};

XMPPvCardMemoryStorage::XMPPvCardMemoryStorage() : state_(std::make_unique<Guarded<State>>()) {}

XMPPvCardMemoryStorage::~XMPPvCardMemoryStorage() = default;

const std::shared_ptr<XMPPvCardMemoryStorage>& XMPPvCardMemoryStorage::sharedInstance() {
  static auto* storage =
      new std::shared_ptr<XMPPvCardMemoryStorage>(std::make_shared<XMPPvCardMemoryStorage>());
  return *storage;
}

std::optional<XMPPElement> XMPPvCardMemoryStorage::vCardTempForJID(const XMPPJID& jid) const {
  return state_->with([&](const State& state) {
    const auto found = state.vCards.find(jid.bare());
    return found == state.vCards.end() ? std::nullopt
                                       : std::optional<XMPPElement>(found->second.copy());
  });
}

void XMPPvCardMemoryStorage::setvCardTemp(const XMPPElement& vCard, const XMPPJID& jid) {
  XMPPElement copy = vCard.copy();
  state_->with([&](State& state) { state.vCards.insert_or_assign(jid.bare(), std::move(copy)); });
}

std::optional<std::string> XMPPvCardMemoryStorage::photoDataForJID(const XMPPJID& jid) const {
  const auto vCard = vCardTempForJID(jid);
  const auto photo = vCard ? vCard->elementForName("PHOTO") : std::nullopt;
  const auto binval = photo ? photo->elementForName("BINVAL") : std::nullopt;
  return binval ? base64Decode(binval->stringValue()) : std::nullopt;
}

std::optional<std::string> XMPPvCardMemoryStorage::photoHashForJID(const XMPPJID& jid) const {
  if (!vCardTempForJID(jid)) {
    return std::nullopt;
  }
  const auto data = photoDataForJID(jid);
  return data && !data->empty() ? hexString(sha1(*data)) : std::string();
}

}  // namespace kq::xmpp
