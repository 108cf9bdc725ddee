#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <deque>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace kqchat {

namespace {

using kq::xmpp::XMPPMessage;

constexpr std::string_view kUsage =
    "xmpp [--user-id ID] [--nick NAME] [--chat-id ID [--website-id W] [--invite OPERATOR_ID "
    "--reason TEXT]] [--tls required|preferred|none] [--json]";

struct Options {
  std::string userId = "visitor";
  std::string nick = "Visitor";
  std::optional<std::string> chatId;
  std::optional<std::string> websiteId;
  std::optional<std::string> invite;
  std::optional<std::string> reason;
  std::optional<kq::xmpp::XMPPStreamStartTLSPolicy> tls;
  bool json = false;
};

// Parses the arguments; an error message on failure.
std::optional<std::string> parse(const std::vector<std::string>& arguments, Options& options) {
  auto problem = parseOptions(
      arguments, {"--json"},
      [&](const std::string& name, const std::string& value) -> std::optional<std::string> {
        if (name == "--json") {
          options.json = true;
        } else if (name == "--user-id") {
          options.userId = value;
        } else if (name == "--nick") {
          options.nick = value;
        } else if (name == "--chat-id") {
          options.chatId = value;
        } else if (name == "--website-id") {
          options.websiteId = value;
        } else if (name == "--invite") {
          options.invite = value;
        } else if (name == "--reason") {
          options.reason = value;
        } else if (name == "--tls") {
          if (value == "required") {
            options.tls = kq::xmpp::XMPPStreamStartTLSPolicy::Required;
          } else if (value == "preferred") {
            options.tls = kq::xmpp::XMPPStreamStartTLSPolicy::Preferred;
          } else if (value == "none") {
            options.tls = kq::xmpp::XMPPStreamStartTLSPolicy::None;
          } else {
            return "--tls takes required, preferred or none, not \"" + value + "\"";
          }
        } else {
          return "unknown argument \"" + name + "\"";
        }
        return std::nullopt;
      });
  if (problem) {
    return problem;
  }
  if (!options.chatId && (options.websiteId || options.invite)) {
    return "--website-id and --invite need --chat-id";
  }
  if (options.invite.has_value() != options.reason.has_value()) {
    return "--invite and --reason go together";
  }
  return std::nullopt;
}

nlohmann::ordered_json optionalText(const std::optional<std::string>& text) {
  return text ? nlohmann::ordered_json(*text) : nlohmann::ordered_json(nullptr);
}

// One session: prints what happens, in text or as one JSON object a line. Everything runs on
// the main queue.
class Session : public kq::xmpp::XMPPStreamDelegate,
                public kq::xmpp::XMPPReconnectDelegate,
                public kq::xmpp::XMPPRoomDelegate,
                public std::enable_shared_from_this<Session> {
 public:
  explicit Session(Options options) : options_(std::move(options)) {}

  void print(nlohmann::ordered_json event) const {
    if (options_.json) {
      std::cout << event.dump() << std::endl;
      return;
    }
    std::string line = event["event"].get<std::string>() + ":";
    for (const auto& [key, value] : event.items()) {
      if (key != "event") {
        line += " " + key + "=" + (value.is_string() ? value.get<std::string>() : value.dump());
      }
    }
    std::cout << line << std::endl;
  }

  void start() {
    auto& client = kq::KQVisitorXMPPClient::instance();
    const auto stream = client.xmppStream();
    if (options_.tls) {
      stream->setStartTLSPolicy(*options_.tls);
    }
    client.addStreamDelegate(shared_from_this());
    client.xmppReconnect()->addDelegate(shared_from_this(), kq::DispatchQueue::main());
    auto& center = kq::NotificationCenter::defaultCenter();
    center.addObserver("LoginSuccess", [this](const kq::Notification& notification) {
      const bool success = std::any_cast<bool>(notification.object);
      loggedIn_ = loggedIn_ || success;
      print({{"event", "login"}, {"success", success}});
      if (!loggedIn_) {
        neverLoggedIn("the server refused the login");
      }
    });
    center.addObserver("ConnectNotification",
                       [this](const kq::Notification& /*notification*/) { connected(); });
    auto user = std::make_shared<kq::KQVisitorUser>();
    user->setUserId(options_.userId);
    user->setUsername(options_.nick);
    if (!client.connectUser(user)) {
      print({{"event", "disconnect"}, {"error", "cannot connect"}});
      neverLoggedIn("the connection could not be started (see the log line above)");
      return;
    }
    disconnectOwed_ = true;
  }

  // Sends `line` as a chat packet; lines typed before the room is joined wait for the join, and
  // lines that come while the run ends are reported unsent.
  void send(const std::string& line) {
    if (!options_.chatId) {
      return;
    }
    if (finishing_) {
      reportUndelivered(line);
      return;
    }
    if (!room_ || !room_->isJoined()) {
      pending_.push_back(line);
      return;
    }
    kq::sendKQVisitorMessage(room_, line, options_.userId, options_.websiteId, "0", options_.nick,
                             options_.chatId);
    unconfirmed_.push_back(line);
  }

  // kExitFailure when lines typed did not reach the room, or the visitor never logged in.
  [[nodiscard]] int exitStatus() const {
    return undelivered_ > 0 || !loggedIn_ ? kExitFailure : kExitOk;
  }

  // The first connection failed: nothing is retried, so there is nothing to wait for.
  void neverLoggedIn(const std::string& why) {
    if (!toldNeverLoggedIn_) {
      toldNeverLoggedIn_ = true;
      std::cerr << "kqvisitor-chat xmpp: never logged in: " << why
                << ". Check xmppHost, xmppPort and caFile of KQVISITOR_CONFIG and that the XMPP "
                   "server is running."
                << std::endl;
    }
    finish();
  }

  // Standard input has ended: leave once every line typed has reached the room (the room
  // reflects each to its sender), so that `echo Hi | kqvisitor-chat xmpp ...` delivers "Hi".
  // A disconnect meanwhile ends the wait; the lines not delivered are then reported.
  void inputEnded() {
    inputEnded_ = true;
    finishIfDelivered();
  }

  void finishIfDelivered() {
    if (inputEnded_ && (!options_.chatId || (pending_.empty() && unconfirmed_.empty()))) {
      finish();
    }
  }

  // Leaves the room, signs out and stops the main loop once the stream is closed.
  void finish() {
    if (finishing_) {
      return;
    }
    finishing_ = true;
    auto& client = kq::KQVisitorXMPPClient::instance();
    reportUnconfirmed();
    for (const auto& line : pending_) {
      reportUndelivered(line);
    }
    if (room_) {
      room_->leaveRoom();
    }
    client.xmppReconnect()->stop();
    if (client.xmppStream()->isDisconnected()) {
      // The stream may have closed while its did-disconnect is still on the way here: then that
      // reports the end (and why the visitor never logged in) and stops the loop.
      if (!disconnectOwed_) {
        kq::DispatchQueue::main()->stop();
      }
      return;
    }
    client.signout();
  }

  void xmppStreamDidDisconnect(kq::xmpp::XMPPStream& /*sender*/,
                               const std::optional<kq::KQError>& error) override {
    disconnectOwed_ = false;
    nlohmann::ordered_json event = {{"event", "disconnect"}};
    event["error"] = error ? nlohmann::ordered_json(error->description()) : nullptr;
    print(event);
    // Lines the room had not reflected went down with the connection: a rejoined room does not
    // send them again.
    reportUnconfirmed();
    if (!loggedIn_) {
      neverLoggedIn(error ? error->description() : "the connection was closed");
    }
    if (finishing_) {
      kq::DispatchQueue::main()->stop();
    } else if (inputEnded_) {
      finish();  // Nothing more can be delivered; finish() reports what was not.
    }
  }

  // A line that did not reach the room: said, and counted against the exit status.
  void reportUndelivered(const std::string& line) {
    print({{"event", "unsent"}, {"body", line}});
    ++undelivered_;
  }

  void reportUnconfirmed() {
    for (const auto& line : unconfirmed_) {
      reportUndelivered(line);
    }
    unconfirmed_.clear();
  }

  void xmppStreamDidReceiveMessage(kq::xmpp::XMPPStream& /*sender*/,
                                   const XMPPMessage& message) override {
    const auto x = message.elementForName("x", kq::xmpp::kXMPPMUCUserNamespace);
    const auto invite = x ? x->elementForName("invite") : std::nullopt;
    if (!invite) {
      return;  // room messages come through the room
    }
    const auto reason = invite->elementForName("reason");
    print({{"event", "invitation"},
           {"room", optionalText(message.attributeStringValueForName("from"))},
           {"from", optionalText(invite->attributeStringValueForName("from"))},
           {"reason", optionalText(reason ? std::optional<std::string>(reason->stringValue())
                                          : std::nullopt)},
           {"chatId", optionalText(kq::chatId(message))},
           {"websiteId", optionalText(kq::websiteId(message))},
           {"visitorId", optionalText(kq::visitorId(message))},
           {"visitorName", optionalText(kq::visitorName(message))},
           {"greeting", optionalText(kq::greeting(message))}});
  }

  void xmppReconnectDidDetectAccidentalDisconnect(
      kq::xmpp::XMPPReconnect& /*sender*/, const std::optional<kq::KQError>& /*error*/) override {
    print({{"event", "reconnect"}});
  }

  void xmppRoomDidCreate(kq::xmpp::XMPPRoom& sender) override {
    roomEvent(sender, "created");
    sender.configureRoomUsingOptions(std::nullopt);
  }
  void xmppRoomDidJoin(kq::xmpp::XMPPRoom& sender) override {
    roomEvent(sender, "joined");
    auto waiting = std::move(pending_);
    pending_.clear();
    for (const auto& line : waiting) {
      send(line);
    }
    finishIfDelivered();
  }
  void xmppRoomDidConfigure(kq::xmpp::XMPPRoom& sender,
                            const kq::xmpp::XMPPIQ& /*iqResult*/) override {
    roomEvent(sender, "configured");
    sendInvitation();
  }
  void xmppRoomDidNotConfigure(kq::xmpp::XMPPRoom& sender,
                               const kq::xmpp::XMPPIQ& /*iqResult*/) override {
    roomEvent(sender, "not configured");
  }
  void xmppRoomDidLeave(kq::xmpp::XMPPRoom& sender) override { roomEvent(sender, "left"); }
  void xmppRoomDidDestroy(kq::xmpp::XMPPRoom& sender) override { roomEvent(sender, "destroyed"); }
  void xmppRoomDidFailToDestroy(kq::xmpp::XMPPRoom& sender,
                                const kq::xmpp::XMPPIQ& /*iqError*/) override {
    roomEvent(sender, "not destroyed");
  }
  void xmppRoomDidReceiveMessage(kq::xmpp::XMPPRoom& /*sender*/, const XMPPMessage& message,
                                 const kq::xmpp::XMPPJID& occupant) override {
    if (occupant.resource() == options_.nick && !unconfirmed_.empty() &&
        !kq::isErrorMessage(message)) {
      unconfirmed_.pop_front();  // one of ours, back from the room
    }
    const auto stamp = kq::getTimeStamp(message);
    printMessage(message, occupant, stamp);
    finishIfDelivered();
  }

 private:
  void printMessage(const XMPPMessage& message, const kq::xmpp::XMPPJID& occupant,
                    const std::optional<kq::Date>& stamp) {
    print({{"event", "message"},
           {"from", occupant.full()},
           {"body", kq::kqChatMessage(message)},
           {"chatId", optionalText(kq::chatId(message))},
           {"websiteId", optionalText(kq::websiteId(message))},
           {"visitorId", optionalText(kq::visitorId(message))},
           {"visitorName", optionalText(kq::visitorName(message))},
           {"managerId", optionalText(kq::managerId(message))},
           {"timeStamp", stamp ? nlohmann::ordered_json(
                                     kq::DatePlus::stringFromDate(*stamp, "yyyy-MM-dd HH:mm:ss"))
                               : nlohmann::ordered_json(nullptr)},
           {"ignored", kq::ignoreMessage(message)},
           {"error", kq::isErrorMessage(message)}});
  }

  void connected() {
    print({{"event", "connect"},
           {"jid", kq::KQVisitorXMPPClient::instance()
                       .xmppStream()
                       ->myJID()
                       .value_or(*kq::xmpp::XMPPJID::jidWithString("x"))
                       .full()}});
    if (!options_.chatId || finishing_) {
      return;
    }
    const auto stream = kq::KQVisitorXMPPClient::instance().xmppStream();
    if (!room_) {
      const auto jid =
          kq::xmpp::XMPPJID::jidWithString("room" + *options_.chatId + "@conference.localhost");
      if (!jid) {
        print({{"event", "room"}, {"state", "bad chat id"}});
        return;
      }
      room_ = std::make_shared<kq::xmpp::XMPPRoom>(
          kq::xmpp::XMPPRoomMemoryStorage::sharedInstance(), *jid, kq::DispatchQueue::main());
      room_->activate(stream);
      room_->addDelegate(shared_from_this(), kq::DispatchQueue::main());
    }
    // Joined again after each reconnect.
    room_->joinRoomUsingNickname(options_.nick, std::nullopt);
  }

  void sendInvitation() {
    if (!options_.invite || invited_ || !room_) {
      return;
    }
    invited_ = true;
    kq::sendKQVisitorInvite(room_, *options_.reason, options_.userId, options_.websiteId, "0",
                            options_.nick, options_.chatId, options_.invite);
    print({{"event", "invite"}, {"operator", *options_.invite + "@localhost"}});
  }

  void roomEvent(kq::xmpp::XMPPRoom& sender, const std::string& state) {
    print({{"event", "room"}, {"room", sender.roomJID().full()}, {"state", state}});
    if (state == "created") {
      created_ = true;
    } else if (state == "joined" && !created_) {
      sendInvitation();  // an existing room needs no configuration first
    }
  }

  Options options_;
  std::shared_ptr<kq::xmpp::XMPPRoom> room_;
  std::vector<std::string> pending_;
  bool finishing_ = false;
  bool inputEnded_ = false;
  std::deque<std::string> unconfirmed_;  // lines sent that the room has not reflected yet
  bool loggedIn_ = false;
  bool disconnectOwed_ = false;  // the first connection started, and its end not heard yet
  bool toldNeverLoggedIn_ = false;
  int undelivered_ = 0;  // lines left unsent or unconfirmed when finishing
  bool created_ = false;
  bool invited_ = false;
};

}  // namespace

// Logs in on the XMPP server as the visitor and, with a chat id, chats in its room: each line
// of standard input is sent as a chat packet; everything that happens is printed.
int runXMPP(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << "usage: kqvisitor-chat " << kUsage << "\n\n"
              << "Logs in anonymously on the XMPP server of KQVISITOR_CONFIG (xmppHost, xmppPort,\n"
              << "caFile), reconnecting as the library does, and prints each login, connect,\n"
              << "disconnect and reconnect. With --chat-id it joins room<ID>@conference.localhost\n"
              << "as --nick, configures the room when the server creates it, invites\n"
              << "<OPERATOR_ID>@localhost with --reason when asked, sends each line of standard\n"
              << "input as a chat packet and prints every message, invitation and room event.\n"
              << "Runs until standard input closes and every line has reached the room (or\n"
              << "Ctrl-C), then leaves and signs out. Exits with 1 when lines could not be\n"
              << "delivered (each is printed as unsent) or the visitor never logged in, 2 for\n"
              << "bad arguments.\n"
              << "--json prints one JSON object a line.\n";
    return kExitOk;
  }
  Options options;
  if (const auto problem = parse(arguments, options)) {
    return usageError(kUsage, *problem);
  }
  auto session = std::make_shared<Session>(options);
  runMainQueueWithTerminal(
      {[session] { session->start(); }, [session](std::string line) { session->send(line); },
       [session] { session->inputEnded(); }, [session] { session->finish(); }},
      false);
  return session->exitStatus();
}

}  // namespace kqchat
