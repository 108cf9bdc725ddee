#pragma once

#include "SandboxStore.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace httplib {
class Server;
}  // namespace httplib

namespace kqsandbox {

/// The operator's desk in a browser, under /console of the sandbox's web server: an operator
/// signs in with the fixture's id and password, sees its chats live (Server-Sent Events), reads
/// a chat, answers, ends it, and goes online or offline for the pre-chat check. While an
/// operator is signed in with a page open, the script stays quiet for it and the person
/// answers.
///
/// The page and its script come with the program. Every request but the sign-in needs the
/// session cookie it sets (401 otherwise); an operator sees only its own chats (403 otherwise).
/// Text is handed to the page as JSON and shown as text.
///
/// Requests run on the web server's threads; every member may be called from any thread.
class SandboxConsole {
 public:
  /// How an answer reaches an XMPP chat: through the operator's agent in the chat's room.
  enum class Delivery {
    Said,       ///< said in the room
    NotInRoom,  ///< an XMPP chat whose room the operator is not in at the moment
    NotXMPP,    ///< not an XMPP chat: the visitor polls over HTTP
  };
  /// Says `text` (the end notice included) as `operatorId` in chat `chatId`.
  using SayOverXMPP = std::function<Delivery(const std::string& operatorId,
                                             const std::string& chatId, const std::string& text)>;
  using Log = std::function<void(const std::string& line)>;

  /// A live page hears from the console at least every `keepAlive`; a page closed is noticed
  /// by its next write, and with the last page of an operator gone its script answers again.
  SandboxConsole(SandboxStore& store, SayOverXMPP say, Log log,
                 std::chrono::milliseconds keepAlive = std::chrono::seconds(15));
  ~SandboxConsole();
  SandboxConsole(const SandboxConsole&) = delete;
  SandboxConsole& operator=(const SandboxConsole&) = delete;

  /// Adds the console's pages and calls to `server`, with `secure` cookies over HTTPS.
  void mount(httplib::Server& server, bool secure);
  /// Ends the live streams, so that the server can stop.
  void stop();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace kqsandbox
