#include <KQVisitorCore/XMPP/XMPPvCardMemoryStorage.h>

#include <KQVisitorCore/XMPP/XMPPEncoding.h>

namespace kq::xmpp {

const std::shared_ptr<XMPPvCardMemoryStorage>& XMPPvCardMemoryStorage::sharedInstance() {
  static auto* storage =
      new std::shared_ptr<XMPPvCardMemoryStorage>(std::make_shared<XMPPvCardMemoryStorage>());
  return *storage;
}

std::optional<XMPPElement> XMPPvCardMemoryStorage::vCardTempForJID(const XMPPJID& jid) const {
  std::scoped_lock lock(mutex_);
  const auto found = vCards_.find(jid.bare());
  return found == vCards_.end() ? std::nullopt : std::optional<XMPPElement>(found->second.copy());
}

void XMPPvCardMemoryStorage::setvCardTemp(const XMPPElement& vCard, const XMPPJID& jid) {
  XMPPElement copy = vCard.copy();
  std::scoped_lock lock(mutex_);
  vCards_.insert_or_assign(jid.bare(), std::move(copy));
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
