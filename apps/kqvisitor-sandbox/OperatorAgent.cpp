#include "OperatorAgent.h"

#include <algorithm>

#include "ChatPacket.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <cmath>

namespace kqsandbox {

using kq::xmpp::XMPPStream;

OperatorAgent::OperatorAgent(SandboxOperator person, SandboxStore& store, OperatorScript script,
                             Log log)
    : person_(std::move(person)),
      store_(store),
      script_(std::move(script)),
      log_(std::move(log)),
      stream_(XMPPStream::create()),
      reconnect_(std::make_shared<kq::xmpp::XMPPReconnect>(kq::DispatchQueue::main())) {}

OperatorAgent::~OperatorAgent() = default;

void OperatorAgent::start(int port) {
  stream_->setHostName("127.0.0.1");
  stream_->setHostPort(static_cast<std::uint16_t>(port));
  stream_->setMyJID(kq::xmpp::XMPPJID::jidWithString(person_.id + "@localhost/agent"));
  // Loopback to our own server: the operator's side needs no TLS.
  stream_->setStartTLSPolicy(kq::xmpp::XMPPStreamStartTLSPolicy::None);
  stream_->addDelegate(shared_from_this(), kq::DispatchQueue::main());
  // Back soon after the server: a sandbox restarts it in a moment.
  reconnect_->setReconnectDelay(std::chrono::duration<double>(0.2));
  reconnect_->setReconnectTimerInterval(std::chrono::duration<double>(1.0));
  reconnect_->activate(stream_);
  if (!stream_->connectWithTimeout(kq::xmpp::XMPPStreamTimeoutNone)) {
    log_(who() + " cannot connect to the XMPP server: see library.log in the data folder");
  }
}

std::string OperatorAgent::who() const {
  return "operator " + person_.name + " (" + person_.id + ")";
}

void OperatorAgent::stop() {
  stopping_ = true;
  for (auto& [jid, chat] : chats_) {
    chat.room->leaveRoom();
    chat.room->deactivate();
  }
  chats_.clear();
  reconnect_->deactivate();
  stream_->disconnect();
}

OperatorAgent::Chat* OperatorAgent::joinedChat(const std::string& chatId) {
  for (auto& [jid, chat] : chats_) {
    if (chat.id == chatId && chat.joined) {
      return &chat;
    }
  }
  return nullptr;
}

bool OperatorAgent::say(const std::string& chatId, const std::string& text) {
  Chat* chat = joinedChat(chatId);
  if (chat == nullptr) {
    return false;
  }
  send(*chat, text);
  store_.addMessage(chatId, "operator", text);
  log_("chat " + chatId + ": " + person_.name + ": " + text);
  return true;
}

bool OperatorAgent::end(const std::string& chatId) {
  Chat* chat = joinedChat(chatId);
  if (chat == nullptr) {
    return false;
  }
  send(*chat, OperatorScript::kEndText);
  store_.endChat(chatId);
  log_("chat " + chatId + " ended by the operator");
  return true;
}

bool OperatorAgent::hasChat(const std::string& chatId) const {
  return std::any_of(chats_.begin(), chats_.end(),
                     [&chatId](const auto& entry) { return entry.second.id == chatId; });
}

void OperatorAgent::send(const Chat& chat, const std::string& text) {
  stream_->sendElement(ChatPacket::operatorLine(
      chat.room->roomJID(), text, {person_.id, person_.name, chat.websiteId, chat.id}));
}

void OperatorAgent::xmppStreamDidConnect(XMPPStream& sender) {
  sender.authenticate(std::make_shared<kq::xmpp::XMPPPlainAuthentication>(person_.password));
}

void OperatorAgent::xmppStreamDidAuthenticate(XMPPStream& sender) {
  sender.sendElement(kq::xmpp::XMPPPresence());  // available: invitations reach us
  if (!wasOnline_) {
    log_(who() + " is online on the XMPP server");
  } else {
    // A chat that ended while we were away has no room to go back to.
    std::erase_if(chats_, [this](const auto& entry) {
      const auto kept = store_.chat(entry.second.id);
      if (kept && !kept->ended) {
        return false;
      }
      entry.second.room->deactivate();
      return true;
    });
    std::string ids;
    for (const auto& [jid, chat] : chats_) {
      ids += (ids.empty() ? "" : ", ") + chat.id;
    }
    log_(who() + ": logged in again" +
         (chats_.empty()       ? ""
          : chats_.size() == 1 ? "; going back into the room of chat " + ids
                               : "; going back into the rooms of chats " + ids));
  }
  link_ = Link::Online;
  wasOnline_ = true;
  for (auto& [jid, chat] : chats_) {
    join(chat, true);  // back into the rooms after a lost connection
  }
}

void OperatorAgent::xmppStreamDidNotAuthenticate(XMPPStream& /*sender*/,
                                                 const kq::xmpp::XMPPElement& /*error*/) {
  log_(who() + " was refused by the XMPP server: check the operator's password in the fixture");
}

void OperatorAgent::xmppStreamDidDisconnect(XMPPStream& /*sender*/,
                                            const std::optional<kq::KQError>& error) {
  for (auto& [jid, chat] : chats_) {
    chat.joined = false;
  }
  if (stopping_) {
    return;
  }
  std::string why;
  if (error) {
    const auto said = error->userInfo.find("NSLocalizedDescription");
    const bool plain = said != error->userInfo.end() && said->is_string();
    why = " (" + (plain ? said->get<std::string>() : error->description()) + ")";
  }
  // One line when the connection goes, one when the server does not answer yet; the attempts
  // after that are quiet until one succeeds.
  if (link_ == Link::Online) {
    log_(who() + ": connection to the XMPP server lost" + why + "; reconnecting");
    link_ = Link::Lost;
  } else if (link_ != Link::Waiting) {
    log_(who() + ": the XMPP server does not answer yet" + why + "; trying again every " +
         std::to_string(std::lround(reconnect_->reconnectTimerInterval().count() * 1000)) + " ms");
    if (link_ == Link::Starting) {
      reconnect_->manualStart();  // on its own, the module only reconnects after a first login
    }
    link_ = Link::Waiting;
  }
}

void OperatorAgent::xmppStreamDidReceiveMessage(XMPPStream& /*sender*/,
                                                const kq::xmpp::XMPPMessage& message) {
  const auto invitation = ChatPacket::invitation(message);
  const auto roomJID = message.from();
  if (!invitation || !roomJID) {
    return;
  }
  const std::string key = roomJID->bare();
  auto [entry, isNew] = chats_.try_emplace(key);
  Chat& chat = entry->second;
  if (isNew) {
    chat.id = invitation->chatId;
    chat.websiteId = invitation->websiteId;
    chat.room = std::make_shared<kq::xmpp::XMPPRoom>(
        kq::xmpp::XMPPRoomMemoryStorage::sharedInstance(), *kq::xmpp::XMPPJID::jidWithString(key),
        kq::DispatchQueue::main());
    chat.room->activate(stream_);
    chat.room->addDelegate(shared_from_this(), kq::DispatchQueue::main());
    log_(who() + " invited to chat " + chat.id + " by visitor " + invitation->visitorName);
  }
  if (!chat.joined) {
    join(chat, !isNew);
  }
}

void OperatorAgent::join(Chat& chat, bool again) {
  // Joining again, the room's history would bring back lines already answered.
  std::optional<kq::xmpp::XMPPElement> history;
  if (again) {
    history.emplace("history");
    history->addAttributeWithName("maxstanzas", "0");
  }
  chat.room->joinRoomUsingNickname(person_.name, history);
}

OperatorAgent::Chat* OperatorAgent::chatOfRoom(const kq::xmpp::XMPPRoom& room) {
  const auto found = chats_.find(room.roomJID().bare());
  return found == chats_.end() ? nullptr : &found->second;
}

void OperatorAgent::xmppRoomDidCreate(kq::xmpp::XMPPRoom& sender) {
  // Back in a room the server lost (it restarted): opened again with the server's defaults.
  sender.configureRoomUsingOptions(std::nullopt);
}

void OperatorAgent::xmppRoomDidJoin(kq::xmpp::XMPPRoom& sender) {
  if (Chat* chat = chatOfRoom(sender)) {
    log_(who() + (chat->everJoined ? " is back in" : " joined") + " the room of chat " + chat->id);
    chat->joined = true;
    chat->everJoined = true;
  }
}

void OperatorAgent::xmppRoomDidReceiveMessage(kq::xmpp::XMPPRoom& sender,
                                              const kq::xmpp::XMPPMessage& message,
                                              const kq::xmpp::XMPPJID& /*occupantJID*/) {
  Chat* chat = chatOfRoom(sender);
  // Only the visitor's chat packets: ours come back from the room too.
  const auto line = ChatPacket::visitorLine(message);
  if (chat == nullptr || !line) {
    return;
  }
  const std::string& text = *line;
  if (text == OperatorScript::kEndText) {
    store_.endChat(chat->id);
    log_("chat " + chat->id + " ended by the visitor");
    return;
  }
  store_.addMessage(chat->id, "visitor", text);
  log_("chat " + chat->id + ": visitor: " + text);
  const auto chatId = chat->id;
  if (store_.atConsole(person_.id)) {
    return;  // a person answers
  }
  for (const auto& answer : script_.answersTo(store_.messageCount(chatId, "visitor"))) {
    if (answer == OperatorScript::kEndText) {
      end(chatId);
    } else {
      say(chatId, answer);
    }
  }
}

}  // namespace kqsandbox
