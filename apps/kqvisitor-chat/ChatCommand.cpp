#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <unistd.h>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace kqchat {

namespace {

using Json = nlohmann::ordered_json;
using kq::KQError;
using kq::KQVisitorRoom;

constexpr std::string_view kUsage =
    "chat --domain DOMAIN [--domain-ar DOMAIN] [--language LANG] [--name N] [--email E] "
    "[--phone P] [--message TEXT] [--http] [--json] [--linger SECONDS] [--verbose]";

constexpr kq::Clock::Duration kLeavingPatience = std::chrono::seconds(10);
constexpr kq::Clock::Duration kEchoPatience = std::chrono::seconds(30);

struct Options {
  std::optional<std::string> domain;
  std::optional<std::string> domainArabic;
  std::string language = "en";
  std::optional<std::string> name;
  std::optional<std::string> email;
  std::optional<std::string> phone;
  std::optional<std::string> message;
  bool http = false;
  bool json = false;
  bool verbose = false;
  double linger = 5;
};

// Parses the arguments; an error message on failure.
std::optional<std::string> parse(const std::vector<std::string>& arguments, Options& options) {
  const std::map<std::string_view, std::optional<std::string> Options::*> texts = {
      {"--domain", &Options::domain}, {"--domain-ar", &Options::domainArabic},
      {"--name", &Options::name},     {"--email", &Options::email},
      {"--phone", &Options::phone},   {"--message", &Options::message},
  };
  auto problem = parseOptions(
      arguments, {"--http", "--json", "--verbose"},
      [&](const std::string& name, const std::string& value) -> std::optional<std::string> {
        if (const auto text = texts.find(name); text != texts.end()) {
          options.*(text->second) = value;
        } else if (name == "--http" || name == "--json" || name == "--verbose") {
          (name == "--http"   ? options.http
           : name == "--json" ? options.json
                              : options.verbose) = true;
        } else if (name == "--language") {
          options.language = value;
        } else if (name == "--linger") {
          char* end = nullptr;
          options.linger = std::strtod(value.c_str(), &end);
          if (value.empty() || *end != '\0' || !(options.linger >= 0 && options.linger <= 3600)) {
            return "--linger takes a number of seconds from 0 to 3600, not \"" + value + "\"";
          }
        } else {
          return "unknown argument \"" + name + "\"";
        }
        return std::nullopt;
      });
  if (!problem && !options.domain) {
    problem = "missing --domain";
  }
  return problem;
}

// What the visitor can do about a failure, by its status.
std::string adviceFor(const KQError& error) {
  if (error.domain == kq::KQVisitorWebService::kNoInternetMessage) {
    return "The network looks down; the request goes on and its own answer follows.";
  }
  switch (error.status().value_or(0)) {
    case 2:
      return "No operator is online for this website in your language: try again later, or "
             "leave an offline message with 'kqvisitor-chat soap'.";
    case 4: return "The website does not take chats from this visitor.";
    case 5:
      return "The service does not know this website: check --domain (and --domain-ar with "
             "--language ar).";
    case 8: return "There is no connection to the Internet: check the network, then try again.";
    default:
      return "The chat service did not answer as expected: check the service origins of "
             "KQVISITOR_CONFIG ('kqvisitor-chat config') and that the service is up, then try "
             "again.";
  }
}

// One visitor's chat: prints what happens, as a person reads a chat or as one JSON object a
// line. Everything here runs on the main queue.
class ChatSession : public kq::xmpp::XMPPStreamDelegate,
                    public std::enable_shared_from_this<ChatSession> {
 public:
  explicit ChatSession(Options options) : options_(std::move(options)) {}

  void start() {
    auto& service = kq::KQVisitorWebService::sharedInstance();
    service.setIsHTTPClient(options_.http);
    auto& client = kq::KQVisitorXMPPClient::instance();
    client.addStreamDelegate(shared_from_this());
    const auto manager = client.sitesManager();
    manager->setWebsiteDomainNameEnglish(options_.domain);
    manager->setWebsiteDomainNameArabic(options_.domainArabic);
    manager->setPreferredLanguage(options_.language);
    auto self = shared_from_this();
    auto& center = kq::NotificationCenter::defaultCenter();
    center.addObserver("LoginSuccess", [self](const kq::Notification& notification) {
      if (!std::any_cast<bool>(notification.object)) {
        self->failed(
            "The XMPP login was refused: check xmppHost, xmppPort and caFile of "
            "KQVISITOR_CONFIG and that the XMPP server is running.");
      }
    });
    say("Looking up " +
        *(options_.language == "ar" && options_.domainArabic ? options_.domainArabic
                                                             : options_.domain) +
        "...");
    manager->visitorPanelWithResult([self](std::optional<KQError> error, Json result) {
      kq::DispatchQueue::main()->async(
          [self, error = std::move(error), result = std::move(result)] {
            self->panelAnswered(error, result);
          });
    });
  }

  // A line typed by the visitor: into the room's outbox once the chat has started, in the order
  // typed; reported unsent when the run is already ending.
  void send(const std::string& line) {
    if (finishing_) {
      reportUnsent(line);
    } else if (outbox_) {
      outbox_->send(line);
    } else {
      early_.push_back(line);
    }
  }

  // Standard input has ended: leave once the replies have had --linger seconds to come.
  void inputEnded() {
    inputEnded_ = true;
    // Lines the room never gives back are not waited for beyond this (they are reported).
    kq::DispatchQueue::main()->asyncAfter(std::chrono::duration_cast<kq::Clock::Duration>(
                                              std::chrono::duration<double>(options_.linger)) +
                                              kEchoPatience,
                                          [self = shared_from_this()] { self->finish(); });
    lingerIfDone();
  }

  // Leaves the chat (Ctrl-C, the room's end, the end of lingering) and stops the main loop.
  void finish() {
    if (finishing_) {
      return;
    }
    finishing_ = true;
    // Leaving takes a service's answer or the server's goodbye: neither is waited for forever.
    kq::DispatchQueue::main()->asyncAfter(kLeavingPatience,
                                          [self = shared_from_this()] { self->stop(); });
    // Lines the chat never got: the chat is being left, so they are not kept for a later run.
    for (const auto& line : early_) {
      reportUnsent(line);
    }
    early_.clear();
    const auto room = room_.lock();
    if (outbox_) {
      for (const auto& line : outbox_->lines()) {
        reportUnsent(line.text);
      }
      outbox_->close();
      outbox_.reset();
      if (const auto chatId = room ? room->roomId() : std::nullopt) {
        kq::KQVisitorOutbox::forgetLines(*chatId);
      }
    }
    auto& client = kq::KQVisitorXMPPClient::instance();
    const auto manager = client.sitesManager();
    if (started_) {
      say("Leaving the chat...");
    }
    if (options_.http) {
      if (!room || !room->roomId()) {
        stop();
        return;
      }
      // Tells the service the chat has ended, then lets the room go.
      manager->closeHTTPSession([self = shared_from_this()](std::optional<KQError> error, auto) {
        kq::DispatchQueue::main()->async([self, error = std::move(error)] {
          if (error) {
            self->showError(*error, "Could not tell the service that the chat ended");
          }
          kq::KQVisitorXMPPClient::instance().sitesManager()->closeSession();
          self->stop();
        });
      });
      return;
    }
    if (room) {
      room->removeRoomUpdateCallback(updates_);
      room->closeRoom();
    }
    client.xmppReconnect()->stop();
    if (client.xmppStream()->isDisconnected()) {
      stop();
      return;
    }
    client.signout();  // stops once the stream reports the disconnect
  }

  [[nodiscard]] int exitStatus() const { return failed_ || unsent_ > 0 ? kExitFailure : kExitOk; }

  void xmppStreamDidDisconnect(kq::xmpp::XMPPStream& /*sender*/,
                               const std::optional<KQError>& error) override {
    if (finishing_) {
      stop();
      return;
    }
    if (!authenticated_) {
      // The first connection failed: without a login there is no chat to wait for.
      failed("Could not log in on the chat server" +
             (error ? " (" + error->description() + ")" : std::string()) +
             ": check xmppHost, xmppPort and caFile of KQVISITOR_CONFIG and that the XMPP "
             "server is running.");
      return;
    }
    if (error) {
      say("Disconnected from the chat server (" + error->description() + "); reconnecting...");
    }
  }

  void xmppStreamWillResume(kq::xmpp::XMPPStream& /*sender*/, const KQError& error) override {
    say("Connection to the chat server lost (" + error.description() +
        "); resuming the session...");
  }

  void xmppStreamDidResume(kq::xmpp::XMPPStream& /*sender*/) override {
    say("Back on the chat server: the session goes on where it was.");
  }

  void xmppStreamDidAuthenticate(kq::xmpp::XMPPStream& /*sender*/) override {
    authenticated_ = true;
  }

 private:
  void print(const Json& event, const std::string& text) const {
    if (options_.json) {
      std::cout << event.dump() << std::endl;
    } else {
      std::cout << text << std::endl;
    }
  }

  // A progress line of the text output.
  void say(const std::string& text) const {
    if (!options_.json) {
      std::cout << text << std::endl;
    }
  }

  void showError(const KQError& error, const std::string& what) const {
    const auto status = error.status();
    Json event = {{"event", "error"}, {"domain", error.domain}, {"code", error.code}};
    event["status"] = status ? Json(*status) : Json(nullptr);
    if (options_.json) {
      std::cout << event.dump() << std::endl;
    }
    std::cerr << "kqvisitor-chat chat: " << what << ": " << error.domain << " (code " << error.code
              << (status ? ", status " + std::to_string(*status) : std::string()) << ")\n"
              << adviceFor(error) << std::endl;
  }

  // A failure that ends the run at once.
  void failed(const std::string& why) {
    if (finishing_) {
      return;
    }
    std::cerr << "kqvisitor-chat chat: " << why << std::endl;
    failed_ = true;
    finish();
  }

  void fail(const KQError& error, const std::string& what) {
    if (finishing_) {
      return;
    }
    if (error.domain == kq::KQVisitorWebService::kNoInternetMessage) {
      // Said at once when the network looks down; the request's own outcome follows, and is
      // the one shown as the outcome.
      print({{"event", "warning"}, {"domain", error.domain}},
            "The network looks down; waiting for the service's own answer...");
      return;
    }
    showError(error, what);
    failed_ = true;
    finish();
  }

  void panelAnswered(const std::optional<KQError>& error, const Json& result) {
    if (error) {
      fail(*error, "The chat could not be prepared");
      return;
    }
    auto& client = kq::KQVisitorXMPPClient::instance();
    const auto room = client.sitesManager()->getCurrentRoom();
    const auto websiteId = result.value("websiteID", Json());
    const auto agent = room ? room->getOperator() : nullptr;
    print({{"event", "panel"}, {"websiteID", websiteId}},
          "Website " + (websiteId.is_string() ? websiteId.get<std::string>() : websiteId.dump()) +
              ": " + (agent ? agent->username().value_or("an operator") : "an operator") +
              " will answer.");
    if (!room) {
      failed("The service named no chat room for this website; try again later.");
      return;
    }
    room_ = room;
    updates_ = std::make_shared<KQVisitorRoom::RoomUpdatesCallback>(
        [weak = weak_from_this()](const std::any& /*object*/, std::int64_t status) {
          if (const auto self = weak.lock()) {
            self->roomUpdated(status);
          }
        });
    room->addRoomUpdatesCallBack(updates_);
    showNewMessages();
    if (const auto visitor = kq::KQVisitorWebService::sharedInstance().currentUser()) {
      visitor->setName(options_.name);
      visitor->setEmail(options_.email);
      visitor->setPhone(options_.phone);
    }
    if (room->isRoomJoined()) {
      // A chat already open on the server has been joined meanwhile: a start would hear nothing.
      startAnswered(std::nullopt, true);
      return;
    }
    say("Starting the chat...");
    client.sitesManager()->startChat(
        options_.message,
        [self = shared_from_this()](std::optional<KQError> failure, Json /*result*/, bool joined) {
          kq::DispatchQueue::main()->async([self, failure = std::move(failure), joined] {
            self->startAnswered(failure, joined);
          });
        });
  }

  void startAnswered(const std::optional<KQError>& error, bool joined) {
    if (error) {
      fail(*error, "The chat could not be started");
      return;
    }
    if (!joined || finishing_) {
      return;
    }
    const auto room = room_.lock();
    const auto chatId = room ? room->roomId() : std::nullopt;
    print({{"event", "started"}, {"joined", true}, {"chatId", chatId ? Json(*chatId) : Json()}},
          started_ ? "Back in the chat." : "Chat started. Type a message and press Enter.");
    started_ = true;
    if (!outbox_ && room) {
      // The outbox keeps each line until the chat has it, across lost connections and rejoins;
      // it also takes back what an earlier run that was killed left for this chat.
      outbox_ = kq::KQVisitorOutbox::make(
          room, [weak = weak_from_this()](const kq::KQVisitorOutbox::Line& line,
                                          kq::KQOutboxLineFate fate,
                                          const std::optional<KQError>& failure) {
            if (const auto self = weak.lock()) {
              self->lineFate(line, fate, failure);
            }
          });
      for (const auto& line : std::exchange(early_, {})) {
        outbox_->send(line);
      }
    }
    lingerIfDone();
  }

  void lineFate(const kq::KQVisitorOutbox::Line& line, kq::KQOutboxLineFate fate,
                const std::optional<KQError>& error) {
    if (fate == kq::KQOutboxLineSent && line.sends > 1 && !options_.json) {
      say("Sending again: " + line.text);
    } else if (fate == kq::KQOutboxLineDelivered) {
      showNewMessages();  // over HTTP the line is in the transcript now
      lingerIfDone();
    } else if (fate == kq::KQOutboxLineGivenUp) {
      if (error) {
        showError(*error, "Not sent: " + line.text);
        ++unsent_;
      } else {
        reportUnsent(line.text);
      }
      lingerIfDone();
    }
  }

  void roomUpdated(std::int64_t status) {
    if (finishing_) {
      return;
    }
    if (status != kq::KQRoomUpdateNewMessage && status != kq::KQRoomUpdateOwnMessage) {
      static const std::map<std::int64_t, std::string> kTexts = {
          {kq::KQRoomUpdateJoined, "Joined the chat room."},
          {kq::KQRoomUpdateDestroyed, "The chat has ended."},
          {kq::KQRoomUpdateJoining, "Joining the chat room..."},
          {kq::KQRoomUpdateRejoining, "The chat server refused a message: joining again..."},
      };
      const auto text = kTexts.find(status);
      if (options_.json || status != lastRoomStatus_) {  // a person needs each change once
        print({{"event", "room"}, {"status", status}},
              text == kTexts.end() ? "Room status " + std::to_string(status) : text->second);
      }
      lastRoomStatus_ = status;
    }
    showNewMessages();
    if (status == kq::KQRoomUpdateDestroyed) {
      finish();
    }
  }

  // "[HH:mm:ss] " of a message's time, for the text output.
  static std::string timeOf(const kq::KQVisitorMessage& message) {
    const auto stamp = message.timeStamp();
    return stamp ? "[" + kq::DatePlus::stringFromDate(*stamp, "HH:mm:ss") + "] " : std::string();
  }

  // Prints the room's messages not printed yet. The greeting comes back as a new first record
  // each time the room is joined: it is printed once.
  void showNewMessages() {
    const auto room = room_.lock();
    if (!room) {
      return;
    }
    const auto messages = room->messages();
    for (const auto& message : messages) {
      if (!shown_.insert(message.get()).second) {
        continue;
      }
      kept_.push_back(message);  // keeps the address from being reused
      const std::string text = message->message().value_or("");
      if (&message == &messages.front() && text == room->greetingMessage()) {
        if (greetingShown_) {
          continue;
        }
        greetingShown_ = true;
      }
      if (text == KQVisitorRoom::kDestroyRoomText) {
        // Over HTTP the operator's end of the chat arrives as a message.
        print({{"event", "room"}, {"status", kq::KQRoomUpdateDestroyed}}, "The chat has ended.");
        finish();
        return;
      }
      if (KQVisitorRoom::ignoreMessage(text)) {
        continue;
      }
      const auto sender = message->sender();
      const bool own = message->messageType() == kq::KQVisitorMessageTypeVisitor;
      const auto name = sender ? sender->username() : std::nullopt;
      print({{"event", "message"},
             {"type", message->messageType()},
             {"sender", name ? Json(*name) : Json()},
             {"text", text}},
            timeOf(*message) + (own    ? "You: " + text
                                : name ? *name + ": " + text
                                       : "* " + text));  // the room's own note
    }
  }

  // A line that did not reach the chat: said, and counted against the exit status.
  void reportUnsent(const std::string& text) {
    print({{"event", "unsent"}, {"text", text}}, "Not sent: " + text);
    ++unsent_;
  }

  void lingerIfDone() {
    if (!inputEnded_ || !started_ || !early_.empty() || (outbox_ && !outbox_->lines().empty()) ||
        lingering_ || finishing_) {
      return;
    }
    lingering_ = true;
    kq::DispatchQueue::main()->asyncAfter(std::chrono::duration_cast<kq::Clock::Duration>(
                                              std::chrono::duration<double>(options_.linger)),
                                          [self = shared_from_this()] { self->finish(); });
  }

  void stop() {
    auto& client = kq::KQVisitorXMPPClient::instance();
    if (const auto room = room_.lock()) {
      room->removeRoomUpdateCallback(updates_);
    }
    client.removeStreamDelegate(this);
    kq::DispatchQueue::main()->stop();
  }

  Options options_;
  std::weak_ptr<KQVisitorRoom> room_;
  KQVisitorRoom::RoomUpdatesCallbackRef updates_;
  std::vector<std::string> early_;  // typed before the chat started
  std::shared_ptr<kq::KQVisitorOutbox> outbox_;
  std::set<const kq::KQVisitorMessage*> shown_;
  std::vector<std::shared_ptr<kq::KQVisitorMessage>> kept_;
  int unsent_ = 0;
  bool started_ = false;
  bool inputEnded_ = false;
  bool lingering_ = false;
  bool finishing_ = false;
  bool failed_ = false;
  bool greetingShown_ = false;
  std::int64_t lastRoomStatus_ = -1;
  bool authenticated_ = false;
};

}  // namespace

// The visitor's whole road: the website by its domain, the pre-chat check, the chat's start,
// then each line of standard input as a message and every update of the room as it comes.
int runChat(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout
        << "usage: kqvisitor-chat " << kUsage << "\n\n"
        << "Chats with an operator of the website DOMAIN as a visitor: identifies the website,\n"
        << "registers the visitor, checks that an operator is there in LANG (en by default; ar\n"
        << "uses --domain-ar), starts the chat with --message as the opening text (and the\n"
        << "visitor's --name, --email and --phone when given), then sends each line of\n"
        << "standard input and prints every message and room update.\n\n"
        << "  --http            carry the chat over HTTP polling instead of XMPP\n"
        << "  --json            print one JSON object a line (events panel, started, message,\n"
        << "                    room, warning, error, unsent)\n"
        << "  --linger SECONDS  after the end of input, wait this long for replies (default 5)\n"
        << "  --verbose         show the library's diagnostics on stderr\n\n"
        << "Leaves the chat at the end of lingering, when the operator ends the chat, or on\n"
        << "Ctrl-C. Exits 0 after a chat, 1 when the chat could not be prepared or started or\n"
        << "lines could not be sent (each failure says what to do), 2 for bad arguments.\n"
        << "Settings (service origins, XMPP server, httpPollInterval) come from\n"
        << "KQVISITOR_CONFIG.\n";
    return kExitOk;
  }
  Options options;
  if (const auto problem = parse(arguments, options)) {
    return usageError(kUsage, *problem);
  }
  if (!options.verbose) {
    kq::setLogSink([](std::string_view /*line*/) {});  // the conversation alone
  }
  auto session = std::make_shared<ChatSession>(options);
  runMainQueueWithTerminal(
      {[session] { session->start(); }, [session](std::string line) { session->send(line); },
       [session] { session->inputEnded(); }, [session] { session->finish(); }},
      isatty(STDIN_FILENO) != 0 && !options.json);
  return session->exitStatus();
}

}  // namespace kqchat
