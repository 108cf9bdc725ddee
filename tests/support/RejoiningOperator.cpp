#include "tests/support/RejoiningOperator.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Timer.h>
#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPPlainAuthentication.h>
#include <KQVisitorCore/XMPP/XMPPPresence.h>
#include <KQVisitorCore/XMPP/XMPPReconnect.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/MainQueue.h"

#include <algorithm>

namespace kq::test {

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

RejoiningOperator::RejoiningOperator(std::uint16_t port, xmpp::XMPPJID roomJID, std::string chatId)
    : chatId_(std::move(chatId)),
      roomJID_(std::move(roomJID)),
      stream_(xmpp::XMPPStream::create()),
      reconnect_(std::make_shared<xmpp::XMPPReconnect>(DispatchQueue::main())) {
  stream_->setHostName("127.0.0.1");
  stream_->setHostPort(port);
  stream_->setMyJID(xmpp::XMPPJID::jidWithString("42@localhost/agent"));
  // Back soon after the server is: the restarts here take a moment.
  reconnect_->setReconnectDelay(Seconds(0.2));
  reconnect_->setReconnectTimerInterval(Seconds(0.5));
}

RejoiningOperator::~RejoiningOperator() = default;

bool RejoiningOperator::login() {
  stream_->addDelegate(shared_from_this(), DispatchQueue::main());
  reconnect_->activate(stream_);
  return stream_->connectWithTimeout(xmpp::XMPPStreamTimeoutNone) &&
         runMainQueueUntil([this] { return authenticated_; });
}

void RejoiningOperator::join(std::function<bool()> mayJoin) {
  wantsRoom_ = true;
  mayJoin_ = std::move(mayJoin);
  if (!room_) {
    room_ = std::make_shared<xmpp::XMPPRoom>(xmpp::XMPPRoomMemoryStorage::sharedInstance(),
                                             roomJID_, DispatchQueue::main());
    room_->addDelegate(shared_from_this(), DispatchQueue::main());
    room_->activate(stream_);
    archive_ = std::make_shared<xmpp::XMPPRoomArchive>(roomJID_, DispatchQueue::main());
    archive_->activate(stream_);
    // The server says nothing we would hear when it refuses a join (a room made again after a
    // restart is locked until its maker configures it): try again while out.
    std::weak_ptr<RejoiningOperator> weak = weak_from_this();
    joinRetry_ = Timer::scheduledTimer(DispatchQueue::main(), 250ms, true, [weak](Timer&) {
      const auto self = weak.lock();
      if (self && self->authenticated_ && !self->joined_ && self->mayJoin_()) {
        self->sendJoin();
      }
    });
  }
  if (authenticated_ && mayJoin_()) {
    sendJoin();
  }
}

void RejoiningOperator::sendJoin() {
  xmpp::XMPPElement history("history");  // what was missed comes from the archive
  history.addAttributeWithName("maxstanzas", "0");
  room_->joinRoomUsingNickname("Operator", history);
}

void RejoiningOperator::say(const std::string& text) {
  unsent_.push_back(text);
  flush();
}

void RejoiningOperator::flush() {
  if (!isJoined()) {
    return;
  }
  for (; !unsent_.empty(); unsent_.pop_front()) {
    auto message =
        makeKQVisitorMessage(roomJID_, unsent_.front(), "42", "W1", "42", "Omar", chatId_);
    message.addAttributeWithName("id", unsent_.front());
    room_->sendMessage(message);
    unechoed_.push_back(unsent_.front());
  }
}

void RejoiningOperator::stop() {
  wantsRoom_ = false;
  for (const auto& timer : {joinRetry_, fetchRetry_}) {
    if (timer) {
      timer->invalidate();
    }
  }
  if (room_) {
    room_->removeDelegate(this);
    room_->deactivate();
    archive_->deactivate();
  }
  reconnect_->deactivate();
  stream_->disconnect();
  runMainQueueUntil([this] { return stream_->isDisconnected(); });
  stream_->removeDelegate(this);
  for (const auto& module : stream_->registeredModules()) {
    module->deactivate();
  }
  const std::weak_ptr<xmpp::XMPPStream> gone = stream_;
  stream_.reset();
  runMainQueueUntil([&] { return gone.expired(); });
}

void RejoiningOperator::xmppStreamDidConnect(xmpp::XMPPStream& sender) {
  sender.authenticate(std::make_shared<xmpp::XMPPPlainAuthentication>("secret"));
}

void RejoiningOperator::xmppStreamDidAuthenticate(xmpp::XMPPStream& sender) {
  authenticated_ = true;
  sender.sendElement(xmpp::XMPPPresence());
  if (wantsRoom_ && mayJoin_()) {
    sendJoin();
  }
}

void RejoiningOperator::xmppStreamDidDisconnect(xmpp::XMPPStream& /*sender*/,
                                                const std::optional<KQError>& /*error*/) {
  authenticated_ = false;
  joined_ = false;
  catchingUp_ = false;
  ++attempt_;
  heldBack_.clear();  // the next catch-up brings them from the archive
}

void RejoiningOperator::xmppRoomDidCreate(xmpp::XMPPRoom& sender) {
  sender.configureRoomUsingOptions(std::nullopt);  // unlocks the room for the visitor
}

void RejoiningOperator::xmppRoomDidJoin(xmpp::XMPPRoom& /*sender*/) {
  joined_ = true;
  if (std::exchange(everJoined_, true)) {
    catchUp(false);
  } else {
    flush();
  }
}

void RejoiningOperator::xmppRoomDidLeave(xmpp::XMPPRoom& /*sender*/) {
  joined_ = false;
}

void RejoiningOperator::catchUp(bool wholeArchive) {
  catchingUp_ = true;
  const auto attempt = ++attempt_;
  std::weak_ptr<RejoiningOperator> weak = weak_from_this();
  const std::optional<std::string> after = wholeArchive ? std::nullopt : lastStanzaId_;
  archive_->fetchMessages({after, std::nullopt, 0}, [weak, attempt, wholeArchive](auto items) {
    if (const auto self = weak.lock()) {
      self->caughtUp(attempt, wholeArchive, items);
    }
  });
}

void RejoiningOperator::caughtUp(
    std::uint64_t attempt, bool wholeArchive,
    const std::optional<std::vector<xmpp::XMPPRoomArchive::Item>>& items) {
  if (attempt != attempt_ || !catchingUp_) {
    return;
  }
  if (!items) {
    // The archive forgets a room that everybody left (as at a restart of the server): it no
    // longer knows the last id heard. The whole archive then; what was heard already is skipped.
    if (!wholeArchive) {
      catchUp(true);
    } else {
      std::weak_ptr<RejoiningOperator> weak = weak_from_this();
      fetchRetry_ = Timer::scheduledTimer(DispatchQueue::main(), 250ms, false, [weak](Timer&) {
        if (const auto self = weak.lock(); self && self->catchingUp_) {
          self->catchUp(true);
        }
      });
    }
    return;
  }
  for (const auto& item : *items) {
    take(item.message, item.archiveId);
  }
  for (const auto& message : std::exchange(heldBack_, {})) {
    take(message, xmpp::XMPPRoomArchive::stanzaId(message, roomJID_));
  }
  catchingUp_ = false;
  // What the room never had goes again, in order, before what was written meanwhile.
  unsent_.insert(unsent_.begin(), unechoed_.begin(), unechoed_.end());
  unechoed_.clear();
  flush();
}

void RejoiningOperator::xmppRoomDidReceiveMessage(xmpp::XMPPRoom& /*sender*/,
                                                  const xmpp::XMPPMessage& message,
                                                  const xmpp::XMPPJID& /*occupant*/) {
  if (message.type() == "error") {
    return;
  }
  if (catchingUp_) {
    heldBack_.push_back(message);
  } else {
    take(message, xmpp::XMPPRoomArchive::stanzaId(message, roomJID_));
  }
}

void RejoiningOperator::take(const xmpp::XMPPMessage& message,
                             const std::optional<std::string>& stanzaId) {
  if (stanzaId) {
    if (!stanzaIds_.insert(*stanzaId).second) {
      return;  // heard already
    }
    lastStanzaId_ = stanzaId;
  }
  if (const auto id = message.elementID()) {
    std::erase(unechoed_, *id);
  }
  const auto from = message.from();
  heard_.push_back(
      {kqChatMessage(message), from ? from->resource().value_or("") : "", Clock::shared()->now()});
  if (onHeard) {
    onHeard(heard_.back());
  }
}

}  // namespace kq::test
