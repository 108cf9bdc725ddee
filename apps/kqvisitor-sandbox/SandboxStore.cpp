#include "SandboxStore.h"

#include <sqlite3.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <stdexcept>

namespace kqsandbox {

namespace {

double now() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

constexpr const char* kSchema = R"(
CREATE TABLE IF NOT EXISTS meta (key TEXT PRIMARY KEY, value TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS websites (
  id TEXT PRIMARY KEY, domain TEXT NOT NULL, domain_arabic TEXT NOT NULL, time_zone TEXT NOT NULL,
  language_id TEXT NOT NULL, branding INTEGER NOT NULL, blocked INTEGER NOT NULL);
CREATE TABLE IF NOT EXISTS operators (
  id TEXT PRIMARY KEY, website_id TEXT NOT NULL REFERENCES websites(id), name TEXT NOT NULL,
  language TEXT NOT NULL, greeting TEXT NOT NULL, online INTEGER NOT NULL, password TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS visitors (
  id INTEGER PRIMARY KEY, website_id TEXT NOT NULL, session TEXT NOT NULL, name TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS greetings (
  id INTEGER PRIMARY KEY, operator_id TEXT NOT NULL, visitor_id TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS chats (
  id INTEGER PRIMARY KEY, website_id TEXT NOT NULL, visitor_id TEXT NOT NULL,
  operator_id TEXT NOT NULL, visitor_name TEXT NOT NULL, opening TEXT NOT NULL,
  survey TEXT NOT NULL, ended INTEGER NOT NULL DEFAULT 0, started REAL NOT NULL DEFAULT 0,
  seen_up_to INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS messages (
  id INTEGER PRIMARY KEY, chat_id TEXT NOT NULL, sender TEXT NOT NULL, text TEXT NOT NULL,
  at REAL NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS offline_messages (id INTEGER PRIMARY KEY, fields TEXT NOT NULL);
CREATE TABLE IF NOT EXISTS files (id INTEGER PRIMARY KEY, name TEXT NOT NULL, bytes BLOB NOT NULL);
)";

}  // namespace

// One prepared statement, finalized on destruction.
class SandboxStore::Statement {
 public:
  Statement(sqlite3* db, const char* sql) : db_(db) {
    if (sqlite3_prepare_v2(db, sql, -1, &statement_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(std::string("sandbox database: ") + sqlite3_errmsg(db));
    }
  }
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  Statement& bind(int index, const std::string& text) {
    sqlite3_bind_text(statement_, index, text.data(), static_cast<int>(text.size()),
                      SQLITE_TRANSIENT);
    return *this;
  }
  Statement& bind(int index, std::int64_t number) {
    sqlite3_bind_int64(statement_, index, number);
    return *this;
  }
  Statement& bind(int index, double number) {
    sqlite3_bind_double(statement_, index, number);
    return *this;
  }
  Statement& bindBlob(int index, const std::string& bytes) {
    sqlite3_bind_blob64(statement_, index, bytes.data(), bytes.size(), SQLITE_TRANSIENT);
    return *this;
  }

  /// True while there is a row to read.
  bool step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) {
      return true;
    }
    if (result != SQLITE_DONE) {
      throw std::runtime_error(std::string("sandbox database: ") + sqlite3_errmsg(db_));
    }
    return false;
  }

  std::string text(int column) {
    const auto* bytes = sqlite3_column_blob(statement_, column);
    const int size = sqlite3_column_bytes(statement_, column);
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), size);
  }
  std::int64_t number(int column) { return sqlite3_column_int64(statement_, column); }
  double real(int column) { return sqlite3_column_double(statement_, column); }

 private:
  sqlite3* db_;
  sqlite3_stmt* statement_ = nullptr;
};

SandboxStore::SandboxStore(const std::string& path, const SandboxFixture& fixture) {
  if (sqlite3_open(path.c_str(), &db_) != SQLITE_OK) {
    const std::string why = db_ != nullptr ? sqlite3_errmsg(db_) : "out of memory";
    sqlite3_close(db_);
    throw std::runtime_error("cannot open the database " + path + ": " + why);
  }
  sqlite3_busy_timeout(db_, 5000);
  try {
    execute("PRAGMA journal_mode=WAL");
    execute(kSchema);
    // Databases made before lines and chats had times and read markers get the columns (0 for
    // old rows); where a column is there already, its statement fails and changes nothing.
    for (const char* column : {"chats ADD COLUMN started REAL", "messages ADD COLUMN at REAL",
                               "chats ADD COLUMN seen_up_to INTEGER"}) {
      sqlite3_exec(db_, ("ALTER TABLE " + std::string(column) + " NOT NULL DEFAULT 0").c_str(),
                   nullptr, nullptr, nullptr);
    }
    Statement seeded(db_, "SELECT value FROM meta WHERE key = 'stamp'");
    if (!seeded.step()) {
      seed(fixture);
    }
  } catch (const std::runtime_error& error) {
    sqlite3_close(db_);
    throw std::runtime_error("cannot use the database " + path + ": " + error.what());
  }
}

SandboxStore::~SandboxStore() {
  sqlite3_close(db_);
}

void SandboxStore::execute(const std::string& sql) {
  char* message = nullptr;
  if (sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
    const std::string why = message != nullptr ? message : sqlite3_errmsg(db_);
    sqlite3_free(message);
    throw std::runtime_error(why);
  }
}

void SandboxStore::seed(const SandboxFixture& fixture) {
  execute("BEGIN");
  for (const auto& website : fixture.websites) {
    Statement(db_, "INSERT INTO websites VALUES (?, ?, ?, ?, ?, ?, ?)")
        .bind(1, website.id)
        .bind(2, website.domain)
        .bind(3, website.domainArabic)
        .bind(4, website.timeZone)
        .bind(5, website.languageId)
        .bind(6, std::int64_t{website.branding})
        .bind(7, std::int64_t{website.blocked})
        .step();
    for (const auto& agent : website.operators) {
      Statement(db_, "INSERT INTO operators VALUES (?, ?, ?, ?, ?, ?, ?)")
          .bind(1, agent.id)
          .bind(2, website.id)
          .bind(3, agent.name)
          .bind(4, agent.language)
          .bind(5, agent.greeting)
          .bind(6, std::int64_t{agent.online})
          .bind(7, agent.password)
          .step();
    }
  }
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
                           std::chrono::system_clock::now().time_since_epoch())
                           .count();
  const nlohmann::json script = {{"replies", fixture.replies}, {"endAfter", fixture.endAfter}};
  Statement(db_, "INSERT INTO meta VALUES ('stamp', ?), ('script', ?)")
      .bind(1, "seeded-" + std::to_string(seconds))
      .bind(2, script.dump())
      .step();
  execute("COMMIT");
}

namespace {

const char* const kWebsiteColumns =
    "SELECT id, domain, domain_arabic, time_zone, language_id, branding, blocked FROM websites ";
const char* const kOperatorColumns =
    "SELECT id, name, language, greeting, online, password FROM operators ";
constexpr const char* kChatColumns =
    "SELECT id, website_id, visitor_id, operator_id, ended, visitor_name, started FROM chats ";

// A row of kChatColumns.
template <class Row>
SandboxChat chatOf(Row& row) {
  return SandboxChat{row.text(0),        row.text(1), row.text(2), row.text(3),
                     row.number(4) != 0, row.text(5), row.real(6)};
}

}  // namespace

std::optional<SandboxWebsite> SandboxStore::websiteByDomain(const std::string& domain) {
  std::string id;
  {
    kq::MutexLock lock(mutex_);
    Statement query(db_, "SELECT id FROM websites WHERE domain = ?1 OR domain_arabic = ?1");
    query.bind(1, domain);
    if (!query.step()) {
      return std::nullopt;
    }
    id = query.text(0);
  }
  return websiteById(id);
}

std::optional<SandboxWebsite> SandboxStore::websiteById(const std::string& id) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, (std::string(kWebsiteColumns) + "WHERE id = ?").c_str());
  query.bind(1, id);
  if (!query.step()) {
    return std::nullopt;
  }
  SandboxWebsite website;
  website.id = query.text(0);
  website.domain = query.text(1);
  website.domainArabic = query.text(2);
  website.timeZone = query.text(3);
  website.languageId = query.text(4);
  website.branding = query.number(5) != 0;
  website.blocked = query.number(6) != 0;
  Statement operators(
      db_, (std::string(kOperatorColumns) + "WHERE website_id = ? ORDER BY rowid").c_str());
  operators.bind(1, id);
  while (operators.step()) {
    website.operators.push_back({operators.text(0), operators.text(1), operators.text(2),
                                 operators.text(3), operators.number(4) != 0, operators.text(5)});
  }
  return website;
}

std::optional<SandboxOperator> SandboxStore::operatorById(const std::string& id) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, (std::string(kOperatorColumns) + "WHERE id = ?").c_str());
  query.bind(1, id);
  if (!query.step()) {
    return std::nullopt;
  }
  return SandboxOperator{query.text(0), query.text(1),        query.text(2),
                         query.text(3), query.number(4) != 0, query.text(5)};
}

std::string SandboxStore::dataStamp() {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT value FROM meta WHERE key = 'stamp'");
  return query.step() ? query.text(0) : std::string();
}

std::pair<std::vector<std::string>, int> SandboxStore::script() {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT value FROM meta WHERE key = 'script'");
  if (!query.step()) {
    return {};
  }
  const auto script = nlohmann::json::parse(query.text(0));
  return {script["replies"].get<std::vector<std::string>>(), script["endAfter"].get<int>()};
}

std::tuple<std::string, std::string, std::string> SandboxStore::addVisitor(
    const std::string& websiteId) {
  kq::MutexLock lock(mutex_);
  Statement(db_, "INSERT INTO visitors (website_id, session, name) VALUES (?, '', '')")
      .bind(1, websiteId)
      .step();
  const auto id = std::to_string(sqlite3_last_insert_rowid(db_));
  const std::string session = "s" + id;
  const std::string name = "Visitor " + id;
  Statement(db_, "UPDATE visitors SET session = ?, name = ? WHERE id = ?")
      .bind(1, session)
      .bind(2, name)
      .bind(3, id)
      .step();
  return {id, session, name};
}

bool SandboxStore::visitorExists(const std::string& visitorId) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT 1 FROM visitors WHERE id = ?");
  query.bind(1, visitorId);
  return query.step();
}

std::string SandboxStore::addGreeting(const std::string& operatorId, const std::string& visitorId) {
  kq::MutexLock lock(mutex_);
  Statement(db_, "INSERT INTO greetings (operator_id, visitor_id) VALUES (?, ?)")
      .bind(1, operatorId)
      .bind(2, visitorId)
      .step();
  return std::to_string(sqlite3_last_insert_rowid(db_));
}

std::string SandboxStore::openChat(const std::string& websiteId, const std::string& visitorId,
                                   const std::string& operatorId, const std::string& visitorName,
                                   const std::string& openingText, const std::string& survey) {
  std::string id;
  {
    kq::MutexLock lock(mutex_);
    Statement(db_,
              "INSERT INTO chats (website_id, visitor_id, operator_id, visitor_name, opening, "
              "survey, started) VALUES (?, ?, ?, ?, ?, ?, ?)")
        .bind(1, websiteId)
        .bind(2, visitorId)
        .bind(3, operatorId)
        .bind(4, visitorName)
        .bind(5, openingText)
        .bind(6, survey)
        .bind(7, now())
        .step();
    id = std::to_string(sqlite3_last_insert_rowid(db_));
  }
  changed();
  return id;
}

std::optional<SandboxChat> SandboxStore::chat(const std::string& chatId) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, (std::string(kChatColumns) + "WHERE id = ?").c_str());
  query.bind(1, chatId);
  if (!query.step()) {
    return std::nullopt;
  }
  return chatOf(query);
}

std::vector<SandboxChatSummary> SandboxStore::chatsOf(const std::string& operatorId) {
  kq::MutexLock lock(mutex_);
  // One query for the whole list: it is read again on every change while a console is open.
  Statement query(db_, R"(
SELECT c.id, c.website_id, c.visitor_id, c.operator_id, c.ended, c.visitor_name, c.started,
  COALESCE(w.domain, c.website_id),
  COALESCE((SELECT text FROM messages m WHERE m.chat_id = c.id ORDER BY m.id DESC LIMIT 1), ''),
  (SELECT COUNT(*) FROM messages m
    WHERE m.chat_id = c.id AND m.sender = 'visitor' AND m.id > c.seen_up_to)
FROM chats c LEFT JOIN websites w ON w.id = c.website_id
WHERE c.operator_id = ? ORDER BY c.id DESC)");
  query.bind(1, operatorId);
  std::vector<SandboxChatSummary> chats;
  while (query.step()) {
    chats.push_back({chatOf(query), query.text(7), query.text(8), query.number(9)});
  }
  return chats;
}

bool SandboxStore::markSeen(const std::string& chatId, std::int64_t upTo) {
  kq::MutexLock lock(mutex_);
  Statement(db_, "UPDATE chats SET seen_up_to = ? WHERE id = ? AND seen_up_to <> ?")
      .bind(1, upTo)
      .bind(2, chatId)
      .bind(3, upTo)
      .step();
  return sqlite3_changes(db_) > 0;
}

std::vector<SandboxMessage> SandboxStore::messages(const std::string& chatId) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT id, sender, text, at FROM messages WHERE chat_id = ? ORDER BY id");
  query.bind(1, chatId);
  std::vector<SandboxMessage> lines;
  while (query.step()) {
    lines.push_back({query.number(0), query.text(1), query.text(2), query.real(3)});
  }
  return lines;
}

void SandboxStore::setOperatorOnline(const std::string& operatorId, bool online) {
  {
    kq::MutexLock lock(mutex_);
    Statement(db_, "UPDATE operators SET online = ? WHERE id = ?")
        .bind(1, std::int64_t{online})
        .bind(2, operatorId)
        .step();
  }
  changed();
}

void SandboxStore::setAtConsole(const std::string& operatorId, bool atConsole) {
  {
    kq::MutexLock lock(mutex_);
    if (atConsole) {
      atConsole_.insert(operatorId);
    } else {
      atConsole_.erase(operatorId);
    }
  }
  changed();
}

bool SandboxStore::atConsole(const std::string& operatorId) {
  kq::MutexLock lock(mutex_);
  return atConsole_.contains(operatorId);
}

void SandboxStore::setChangeListener(std::function<void()> listener) {
  kq::MutexLock lock(mutex_);
  changeListener_ = std::move(listener);
}

void SandboxStore::changed() {
  std::function<void()> listener;
  {
    kq::MutexLock lock(mutex_);
    listener = changeListener_;
  }
  if (listener) {
    listener();
  }
}

std::optional<SandboxChat> SandboxStore::latestOpenChat() {
  std::string id;
  {
    kq::MutexLock lock(mutex_);
    Statement query(db_, "SELECT id FROM chats WHERE ended = 0 ORDER BY id DESC LIMIT 1");
    if (!query.step()) {
      return std::nullopt;
    }
    id = query.text(0);
  }
  return chat(id);
}

void SandboxStore::endChat(const std::string& chatId) {
  {
    kq::MutexLock lock(mutex_);
    Statement(db_, "UPDATE chats SET ended = 1 WHERE id = ?").bind(1, chatId).step();
  }
  changed();
}

std::int64_t SandboxStore::addMessage(const std::string& chatId, const std::string& sender,
                                      const std::string& text) {
  std::int64_t id = 0;
  {
    kq::MutexLock lock(mutex_);
    Statement(db_, "INSERT INTO messages (chat_id, sender, text, at) VALUES (?, ?, ?, ?)")
        .bind(1, chatId)
        .bind(2, sender)
        .bind(3, text)
        .bind(4, now())
        .step();
    id = sqlite3_last_insert_rowid(db_);
  }
  changed();
  return id;
}

int SandboxStore::messageCount(const std::string& chatId, const std::string& sender) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT count(*) FROM messages WHERE chat_id = ? AND sender = ?");
  query.bind(1, chatId).bind(2, sender);
  return query.step() ? static_cast<int>(query.number(0)) : 0;
}

std::optional<std::pair<std::int64_t, std::string>> SandboxStore::nextOperatorMessage(
    const std::string& chatId, std::int64_t afterId) {
  kq::MutexLock lock(mutex_);
  Statement query(db_,
                  "SELECT id, text FROM messages WHERE chat_id = ? AND sender = 'operator' AND "
                  "id > ? ORDER BY id LIMIT 1");
  query.bind(1, chatId).bind(2, afterId);
  if (!query.step()) {
    return std::nullopt;
  }
  return std::pair(query.number(0), query.text(1));
}

void SandboxStore::addOfflineMessage(const std::string& fields) {
  kq::MutexLock lock(mutex_);
  Statement(db_, "INSERT INTO offline_messages (fields) VALUES (?)").bind(1, fields).step();
}

std::vector<std::string> SandboxStore::offlineMessages() {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT fields FROM offline_messages ORDER BY id");
  std::vector<std::string> all;
  while (query.step()) {
    all.push_back(query.text(0));
  }
  return all;
}

std::string SandboxStore::addFile(const std::string& name, const std::string& bytes) {
  kq::MutexLock lock(mutex_);
  Statement(db_, "INSERT INTO files (name, bytes) VALUES (?, ?)")
      .bind(1, name)
      .bindBlob(2, bytes)
      .step();
  return std::to_string(sqlite3_last_insert_rowid(db_));
}

std::optional<std::pair<std::string, std::string>> SandboxStore::file(const std::string& id) {
  kq::MutexLock lock(mutex_);
  Statement query(db_, "SELECT name, bytes FROM files WHERE id = ?");
  query.bind(1, id);
  if (!query.step()) {
    return std::nullopt;
  }
  return std::pair(query.text(0), query.text(1));
}

}  // namespace kqsandbox
