#pragma once

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kq {

/// Persistent key-value settings kept in one JSON file.
///
/// Values are JSON values. Changes are visible at once to every reader and reach the file soon
/// after (a write is scheduled kDeferredWriteDelay after the first unsaved change);
/// synchronize() writes at once and returns only when the file is on disk. A write replaces the
/// file atomically, so it never holds half of one state and half of another. A file that cannot
/// be read as settings is reported in the log and moved aside (renamed with a ".damaged-<time>"
/// suffix), never silently dropped, and the settings start empty. Thread-safe.
class KQ_EXPORT UserDefaults {
 public:
  /// A stored value.
  using Json = nlohmann::ordered_json;

  /// How long after the first unsaved change the file is written.
  static constexpr Clock::Duration kDeferredWriteDelay = std::chrono::milliseconds(500);

  /// The settings file of the configuration (KQVisitorConfig::userDefaultsPath), opened on first
  /// use and kept for the life of the process. When the configuration file is broken in a way
  /// that concerns that setting, the settings are kept in memory only (logged once).
  static UserDefaults& standard();

  /// Opens the settings kept in `path`; the file and its folder are created on the first write.
  /// An empty path keeps the settings in memory only: nothing is read or written, and
  /// synchronize() answers false.
  explicit UserDefaults(std::string path);
  UserDefaults(const UserDefaults&) = delete;
  UserDefaults& operator=(const UserDefaults&) = delete;
  /// Writes unsaved changes.
  ~UserDefaults();

  /// The settings file; empty when the settings are kept in memory only.
  [[nodiscard]] const std::string& path() const { return path_; }

  /// The value stored under `key`; nullopt when there is none.
  [[nodiscard]] std::optional<Json> objectForKey(const std::string& key) const;
  /// Stores `value` under `key`; a null value removes the key.
  void setObject(Json value, const std::string& key);
  /// Removes the value under `key`, if any.
  void removeObjectForKey(const std::string& key);

  /// A string value, or a number written in decimal; nullopt otherwise.
  [[nodiscard]] std::optional<std::string> stringForKey(const std::string& key) const;
  /// An object value; nullopt otherwise.
  [[nodiscard]] std::optional<Json> dictionaryForKey(const std::string& key) const;
  /// A number (truncated), a boolean (1 or 0) or a string read as integerValue does; 0 otherwise.
  [[nodiscard]] std::int64_t integerForKey(const std::string& key) const;
  /// Stores `value` under `key` as a JSON number.
  void setInteger(std::int64_t value, const std::string& key);
  /// True for true, a non-zero number, or a string beginning "Y", "y", "T", "t" or a non-zero
  /// digit; false otherwise.
  [[nodiscard]] bool boolForKey(const std::string& key) const;
  /// Stores `value` under `key` as a JSON boolean.
  void setBool(bool value, const std::string& key);

  /// Writes the settings to the file now, durably: once this returns true they survive a crash
  /// or power loss. Returns false, after logging why, when the file could not be written.
  bool synchronize();

 private:
  void load();
  void setAside(const std::string& problem) const;
  void markChanged();
  // Writes the file; on failure, the line to log.
  [[nodiscard]] std::optional<std::string> writeSnapshot(const Json& snapshot) const;

  // The values and the state of the file's writes, under their locks; defined in
  // UserDefaults.cpp.
  struct Impl;

  const std::string path_;
  const std::unique_ptr<Impl> impl_;
};

}  // namespace kq
