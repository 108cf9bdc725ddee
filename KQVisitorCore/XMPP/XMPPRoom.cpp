#include <KQVisitorCore/XMPP/XMPPRoom.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>
#include <KQVisitorCore/XMPP/detail/XMPPDelegateList.h>

#include <KQVisitorCore/XMPP/XMPPNamespaces.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

namespace kq::xmpp {

namespace {

constexpr std::chrono::duration<double> kOwnerTimeout{60.0};

bool hasStatusCode(const XMPPPresence& presence, int code) {
  const auto x = presence.elementForName("x", kXMPPMUCUserNamespace);
  if (!x) {
    return false;
  }
  for (const auto& status : x->elementsForName("status")) {
    if (status.attributeIntValueForName("code") == code) {
      return true;
    }
  }
  return false;
}

// The room's refusal of a message from someone who is not an occupant.
bool isNotOccupant(const XMPPMessage& error) {
  const auto reason = error.elementForName("error");
  return reason && reason->elementForName("not-acceptable", kXMPPStanzasNamespace).has_value();
}

}  // namespace

XMPPRoomDelegate::~XMPPRoomDelegate() = default;

struct XMPPRoom::State {
  std::optional<std::string> nickname;  // of the last join
  bool joined = false;
};

XMPPRoom::XMPPRoom(std::shared_ptr<XMPPRoomMemoryStorage> storage, const XMPPJID& roomJID,
                   std::shared_ptr<DispatchQueue> dispatchQueue)
    : XMPPModule(std::move(dispatchQueue)),
      storage_(std::move(storage)),
      roomJID_(roomJID.bareJID()),
      state_(std::make_unique<Guarded<State>>()),
      delegates_(std::make_unique<XMPPDelegateList<XMPPRoomDelegate>>()) {}

XMPPRoom::~XMPPRoom() = default;

bool XMPPRoom::isNoAnswer(const XMPPIQ& answer) {
  const auto error = answer.elementForName("error");
  return answer.isErrorIQ() && !answer.attributeStringValueForName("from") && error &&
         error->elementForName(kNoAnswerCondition, kXMPPStanzasNamespace).has_value();
}

std::optional<std::string> XMPPRoom::myNickname() const {
  return state_->get(&State::nickname);
}

std::optional<XMPPJID> XMPPRoom::myRoomJID() const {
  const auto nickname = myNickname();
  return nickname ? XMPPJID::jidWithUser(roomJID_.user(), roomJID_.domain(), *nickname)
                  : std::nullopt;
}

bool XMPPRoom::isJoined() const {
  return state_->get(&State::joined);
}

void XMPPRoom::addDelegate(const std::shared_ptr<XMPPRoomDelegate>& delegate,
                           std::shared_ptr<DispatchQueue> queue) {
  delegates_->add(delegate, std::move(queue));
}

void XMPPRoom::removeDelegate(const XMPPRoomDelegate* delegate) {
  delegates_->remove(delegate);
}

void XMPPRoom::notify(std::function<void(XMPPRoomDelegate&, XMPPRoom&)> call) {
  delegates_->invoke(
      [self = std::static_pointer_cast<XMPPRoom>(shared_from_this()),
       call = std::move(call)](XMPPRoomDelegate& delegate) { call(delegate, *self); });
}

void XMPPRoom::joinRoomUsingNickname(const std::string& nickname,
                                     const std::optional<XMPPElement>& history,
                                     const std::optional<std::string>& password) {
  state_->set(&State::nickname, std::optional<std::string>(nickname));
  const auto stream = xmppStream();
  const auto to = myRoomJID();
  if (!stream || !to) {
    return;
  }
  XMPPPresence presence(std::nullopt, to);
  XMPPElement x = presence.addChildElement("x", kXMPPMUCNamespace);
  if (history) {
    x.addChild(*history);
  }
  if (password) {
    x.addChildElement("password").setStringValue(*password);
  }
  stream->sendElement(presence);
}

void XMPPRoom::leaveRoom() {
  const auto stream = xmppStream();
  const auto to = myRoomJID();
  if (stream && to) {
    stream->sendElement(XMPPPresence("unavailable", to));
  }
}

void XMPPRoom::configureRoomUsingOptions(const std::optional<XMPPElement>& roomConfigForm) {
  XMPPElement query("query", kXMPPMUCOwnerNamespace);
  XMPPElement x = query.addChildElement("x", kXMPPDataFormsNamespace);
  x.addAttributeWithName("type", "submit");
  if (roomConfigForm) {
    for (const auto& field : roomConfigForm->elementsForName("field")) {
      x.addChild(field);
    }
  }
  sendOwnerIQ(query, false);
}

void XMPPRoom::destroyRoom() {
  XMPPElement query("query", kXMPPMUCOwnerNamespace);
  query.addChildElement("destroy");
  sendOwnerIQ(query, true);
}

void XMPPRoom::sendOwnerIQ(const XMPPElement& query, bool destroying) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  std::weak_ptr<XMPPRoom> weak = std::static_pointer_cast<XMPPRoom>(shared_from_this());
  const XMPPJID room = roomJID_;
  const XMPPIQ request("set", room, XMPPStream::generateUUID(), query);
  stream->sendIQ(
      request, kOwnerTimeout,
      [weak, destroying, room, request](const std::optional<XMPPIQ>& response) {
        const auto self = weak.lock();
        if (!self) {
          return;
        }
        // No answer (the time-out passed or the connection ended): an error of our own, told
        // apart from the server's by its condition and its missing sender.
        const XMPPIQ answer =
            response ? *response : XMPPIQ::errorIQ(request, "wait", kNoAnswerCondition);
        const bool accepted = answer.isResultIQ();
        if (destroying && accepted) {
          self->storage_->clearRoom(room);
        }
        self->notify([destroying, accepted, answer](XMPPRoomDelegate& delegate, XMPPRoom& sender) {
          if (destroying) {
            accepted ? delegate.xmppRoomDidDestroy(sender)
                     : delegate.xmppRoomDidFailToDestroy(sender, answer);
          } else {
            accepted ? delegate.xmppRoomDidConfigure(sender, answer)
                     : delegate.xmppRoomDidNotConfigure(sender, answer);
          }
        });
      });
}

void XMPPRoom::inviteUser(const XMPPJID& jid, const std::optional<std::string>& message) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  XMPPMessage invitation(std::nullopt, roomJID_);
  XMPPElement invite =
      invitation.addChildElement("x", kXMPPMUCUserNamespace).addChildElement("invite");
  invite.addAttributeWithName("to", jid.full());
  if (message && !message->empty()) {
    invite.addChildElement("reason").setStringValue(*message);
  }
  stream->sendElement(invitation);
}

void XMPPRoom::sendMessage(const XMPPMessage& message) {
  const auto stream = xmppStream();
  if (!stream) {
    return;
  }
  XMPPMessage copy(message.copy());
  copy.addAttributeWithName("to", roomJID_.full());
  copy.addAttributeWithName("type", "groupchat");
  stream->sendElement(copy);
}

void XMPPRoom::streamDidDisconnect(const std::optional<KQError>& /*error*/) {
  const bool wasJoined =
      state_->with([](State& state) { return std::exchange(state.joined, false); });
  if (wasJoined) {
    notify([](XMPPRoomDelegate& delegate, XMPPRoom& sender) { delegate.xmppRoomDidLeave(sender); });
  }
}

void XMPPRoom::streamDidReceivePresence(const XMPPPresence& presence) {
  const auto from = presence.from();
  if (!from || !from->isEqualToJIDIgnoringResource(roomJID_)) {
    return;
  }
  storage_->handlePresence(presence, roomJID_);
  const auto me = myRoomJID();
  const bool isMine = hasStatusCode(presence, 110) || (me && *from == *me);
  if (!isMine) {
    return;
  }
  const bool unavailable = presence.type() == "unavailable";
  if (presence.type() == "error") {
    if (!isJoined()) {  // a refused join: we never were in the room
      notify([presence](XMPPRoomDelegate& delegate, XMPPRoom& sender) {
        delegate.xmppRoomDidNotJoin(sender, presence);
      });
    }
    return;
  }
  const bool changed = state_->with([unavailable](State& state) {
    if (unavailable != state.joined) {
      return false;
    }
    state.joined = !unavailable;
    return true;
  });
  if (!changed) {
    return;
  }
  if (unavailable) {
    notify([](XMPPRoomDelegate& delegate, XMPPRoom& sender) { delegate.xmppRoomDidLeave(sender); });
    return;
  }
  const bool created = hasStatusCode(presence, 201);
  notify([created](XMPPRoomDelegate& delegate, XMPPRoom& sender) {
    if (created) {
      delegate.xmppRoomDidCreate(sender);
    }
    delegate.xmppRoomDidJoin(sender);
  });
}

void XMPPRoom::streamDidReceiveMessage(const XMPPMessage& message) {
  const auto from = message.from();
  if (!from || !from->isEqualToJIDIgnoringResource(roomJID_)) {
    return;
  }
  const bool isError = message.type() == "error";
  if (!message.isGroupChatMessageWithBody() && !isError) {
    return;  // subjects, invitations' echoes, chat states
  }
  if (!isError) {
    storage_->handleIncomingMessage(message, roomJID_);
  } else if (isNotOccupant(message) &&
             state_->with([](State& state) { return std::exchange(state.joined, false); })) {
    // The room no longer has us, though it never said so (it lost us in a restart of its own,
    // say): we are out, and whoever rejoins on this message can.
    notify([](XMPPRoomDelegate& delegate, XMPPRoom& sender) { delegate.xmppRoomDidLeave(sender); });
  }
  notify([message, occupant = *from](XMPPRoomDelegate& delegate, XMPPRoom& sender) {
    delegate.xmppRoomDidReceiveMessage(sender, message, occupant);
  });
}

void XMPPRoom::streamDidSendElement(const XMPPElement& element) {
  if (element.name() != "message" || element.attributeStringValueForName("type") != "groupchat" ||
      !element.elementForName("body")) {
    return;
  }
  const auto to = element.to();
  if (to && to->isEqualToJIDIgnoringResource(roomJID_)) {
    storage_->handleSentMessage(XMPPMessage(element), roomJID_);
  }
}

}  // namespace kq::xmpp
