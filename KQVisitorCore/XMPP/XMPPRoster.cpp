#include <KQVisitorCore/XMPP/XMPPRoster.h>

#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPRosterDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRosterMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

namespace kq::xmpp {

namespace {
constexpr std::chrono::duration<double> kRosterTimeout{60.0};
}  // namespace

XMPPRosterDelegate::~XMPPRosterDelegate() = default;

XMPPRoster::XMPPRoster(std::shared_ptr<XMPPRosterMemoryStorage> storage,
                       std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)),
      storage_(std::move(storage)),
      delegates_(std::make_unique<XMPPDelegateList<XMPPRosterDelegate>>()) {}

XMPPRoster::~XMPPRoster() = default;

void XMPPRoster::addDelegate(const std::shared_ptr<XMPPRosterDelegate>& delegate,
                             std::shared_ptr<DispatchQueue> queue) {
  delegates_->add(delegate, std::move(queue));
}

void XMPPRoster::removeDelegate(const XMPPRosterDelegate* delegate) {
  delegates_->remove(delegate);
}

void XMPPRoster::fetchRoster() {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  std::weak_ptr<XMPPRoster> weak = std::static_pointer_cast<XMPPRoster>(shared_from_this());
  stream->sendIQ(
      XMPPIQ("get", std::nullopt, std::nullopt, XMPPElement("query", kXMPPRosterNamespace)),
      kRosterTimeout, [weak](const std::optional<XMPPIQ>& response) {
        const auto self = weak.lock();
        if (!self || !response || !response->isResultIQ()) {
          return;
        }
        if (const auto query = response->elementForName("query")) {
          self->applyItems(*query);
        }
        self->delegates_->invoke(
            [self](XMPPRosterDelegate& delegate) { delegate.xmppRosterDidEndPopulating(*self); });
      });
}

void XMPPRoster::acceptPresenceSubscriptionRequestFrom(const XMPPJID& jid) {
  if (const auto stream = xmppStream()) {
    stream->sendElement(XMPPPresence("subscribed", jid.bareJID()));
  }
}

void XMPPRoster::rejectPresenceSubscriptionRequestFrom(const XMPPJID& jid) {
  if (const auto stream = xmppStream()) {
    stream->sendElement(XMPPPresence("unsubscribed", jid.bareJID()));
  }
}

void XMPPRoster::applyItems(const XMPPElement& query) {
  for (const auto& element : query.elementsForName("item")) {
    const auto jid = XMPPJID::jidWithString(element.attributeStringValueForName("jid", ""));
    if (!jid) {
      continue;
    }
    const std::string subscription = element.attributeStringValueForName("subscription", "none");
    if (subscription == "remove") {
      storage_->remove(*jid);
      continue;
    }
    XMPPRosterItem item{jid->bareJID(),
                        element.attributeStringValueForName("name"),
                        subscription,
                        element.attributeStringValueForName("ask"),
                        {}};
    for (const auto& group : element.elementsForName("group")) {
      item.groups.push_back(group.stringValue());
    }
    storage_->addOrUpdate(item);
  }
}

void XMPPRoster::streamDidAuthenticate() {
  if (autoFetchRoster()) {
    fetchRoster();
  }
}

void XMPPRoster::streamDidDisconnect(const std::optional<KQError>& /*error*/) {
  storage_->clear();
}

bool XMPPRoster::streamDidReceiveIQ(const XMPPIQ& iq) {
  const auto query = iq.elementForName("query", kXMPPRosterNamespace);
  if (!query || !iq.isSetIQ()) {
    return false;
  }
  const auto stream = xmppStream();
  const auto from = iq.from();
  const auto me = stream ? stream->myJID() : std::nullopt;
  // Pushes come from the server (no sender) or from our own bare address; others are forged.
  if (from && !(me && from->bare() == me->bare())) {
    return false;
  }
  applyItems(*query);
  if (stream) {
    stream->sendElement(XMPPIQ::resultIQ(iq, std::nullopt));
  }
  return true;
}

void XMPPRoster::streamDidReceivePresence(const XMPPPresence& presence) {
  if (presence.type() != "subscribe") {
    return;
  }
  const auto from = presence.from();
  if (from && autoAcceptKnownPresenceSubscriptionRequests()) {
    const auto known = storage_->userForJID(*from);
    if (known && (known->subscription == "to" || known->subscription == "both")) {
      acceptPresenceSubscriptionRequestFrom(*from);
      return;
    }
  }
  const auto self = std::static_pointer_cast<XMPPRoster>(shared_from_this());
  delegates_->invoke([self, presence](XMPPRosterDelegate& delegate) {
    delegate.xmppRosterDidReceiveBuddyRequest(*self, presence);
  });
}

}  // namespace kq::xmpp
