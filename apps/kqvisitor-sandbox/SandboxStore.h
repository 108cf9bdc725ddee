#pragma once

#include "SandboxFixture.h"

#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

struct sqlite3;

namespace kqsandbox {

/// A chat as the service keeps it.
struct SandboxChat {
  std::string id;
  std::string websiteId;
  std::string visitorId;
  std::string operatorId;
  bool ended = false;
  std::string visitorName;
  double started = 0;  ///< seconds since 1970; 0 for a chat kept before times were
};

/// One line of a chat.
struct SandboxMessage {
  std::int64_t id = 0;  ///< increasing
  std::string sender;   ///< "visitor" or "operator"
  std::string text;
  double at = 0;  ///< seconds since 1970; 0 for a line kept before times were
};

/// A chat as the operator console lists it.
struct SandboxChatSummary {
  SandboxChat chat;
  std::string website;      ///< its domain
  std::string lastLine;     ///< empty before the first line
  std::int64_t unread = 0;  ///< visitor lines after the operator's read marker
};

/// The sandbox's data in one SQLite database: websites and operators (from the fixture), the
/// visitors, chats and messages the service records, offline messages and uploaded files.
/// Every method may be called from any thread (one connection behind a mutex). Methods throw
/// std::runtime_error when the database fails.
class SandboxStore {
 public:
  /// Opens (or creates) the database at `path` and seeds it with `fixture` when it is new.
  /// Throws std::runtime_error naming the file when it cannot be opened or written.
  SandboxStore(const std::string& path, const SandboxFixture& fixture);
  ~SandboxStore();
  SandboxStore(const SandboxStore&) = delete;
  SandboxStore& operator=(const SandboxStore&) = delete;

  /// The website known by either of its domain names.
  [[nodiscard]] std::optional<SandboxWebsite> websiteByDomain(const std::string& domain);
  [[nodiscard]] std::optional<SandboxWebsite> websiteById(const std::string& id);
  /// The operator with this id, of any website.
  [[nodiscard]] std::optional<SandboxOperator> operatorById(const std::string& id);
  /// The stamp of the data: it changes when the database is made anew.
  [[nodiscard]] std::string dataStamp();
  /// The fixture's script of operator answers.
  [[nodiscard]] std::pair<std::vector<std::string>, int> script();

  /// Registers a visitor of `websiteId`; returns (visitor id, session id, visitor name).
  std::tuple<std::string, std::string, std::string> addVisitor(const std::string& websiteId);
  [[nodiscard]] bool visitorExists(const std::string& visitorId);
  /// Records that the greeting of `operatorId` was shown to `visitorId`; returns its id.
  std::string addGreeting(const std::string& operatorId, const std::string& visitorId);
  /// Opens a chat; returns its id.
  std::string openChat(const std::string& websiteId, const std::string& visitorId,
                       const std::string& operatorId, const std::string& visitorName,
                       const std::string& openingText, const std::string& survey);
  [[nodiscard]] std::optional<SandboxChat> chat(const std::string& chatId);
  /// The chat opened last that has not ended.
  [[nodiscard]] std::optional<SandboxChat> latestOpenChat();
  void endChat(const std::string& chatId);
  /// Adds a message ("visitor" or "operator") to a chat; returns its id (increasing).
  std::int64_t addMessage(const std::string& chatId, const std::string& sender,
                          const std::string& text);
  /// The chat's lines, oldest first.
  [[nodiscard]] std::vector<SandboxMessage> messages(const std::string& chatId);
  /// The chats of `operatorId`, newest first.
  [[nodiscard]] std::vector<SandboxChatSummary> chatsOf(const std::string& operatorId);
  /// Moves the operator's read marker of `chatId` to line `upTo`; whether it moved.
  bool markSeen(const std::string& chatId, std::int64_t upTo);
  /// Whether the operator takes chats; the pre-chat check offers only those who do.
  void setOperatorOnline(const std::string& operatorId, bool online);
  /// Whether a person answers for the operator at the console (the script stays quiet then).
  /// Not kept in the database: a new sandbox starts with the script answering.
  void setAtConsole(const std::string& operatorId, bool atConsole);
  [[nodiscard]] bool atConsole(const std::string& operatorId);
  /// Told, on the thread that changed it, after each change of a chat, a line or an operator's
  /// presence.
  void setChangeListener(std::function<void()> listener);
  /// How many messages `sender` wrote in the chat.
  [[nodiscard]] int messageCount(const std::string& chatId, const std::string& sender);
  /// The first operator message of the chat after message `afterId`: (id, text).
  [[nodiscard]] std::optional<std::pair<std::int64_t, std::string>> nextOperatorMessage(
      const std::string& chatId, std::int64_t afterId);

  /// Keeps an offline contact message (the SOAP call's parameters, as JSON text).
  void addOfflineMessage(const std::string& fields);
  [[nodiscard]] std::vector<std::string> offlineMessages();
  /// Keeps an uploaded file; returns its id.
  std::string addFile(const std::string& name, const std::string& bytes);
  /// The file's (name, bytes).
  [[nodiscard]] std::optional<std::pair<std::string, std::string>> file(const std::string& id);

 private:
  class Statement;
  void seed(const SandboxFixture& fixture) KQ_REQUIRES(mutex_);
  void execute(const std::string& sql) KQ_REQUIRES(mutex_);
  void changed() KQ_EXCLUDES(mutex_);

  kq::Mutex mutex_;
  sqlite3* db_ KQ_GUARDED_BY(mutex_) = nullptr;
  std::set<std::string> atConsole_ KQ_GUARDED_BY(mutex_);
  std::function<void()> changeListener_ KQ_GUARDED_BY(mutex_);
};

}  // namespace kqsandbox
