#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <memory>
#include <optional>
#include <string>

namespace kq {

template <class T>
class Guarded;

/// A person taking part in a chat: the visitor or an operator.
///
/// Users are compared by identity (the same object), never by their fields: two users with the
/// same id and name are different users. Absent fields are nullopt, which is not the empty
/// string. Fields may be read and written from any thread.
class KQ_EXPORT KQVisitorUser {
 public:
  KQVisitorUser();
  ~KQVisitorUser();
  KQVisitorUser(const KQVisitorUser&) = delete;
  KQVisitorUser& operator=(const KQVisitorUser&) = delete;

  /// Display name: the nickname under which the visitor joins a room; for an operator, the name
  /// carried by the chat packet.
  [[nodiscard]] std::optional<std::string> username() const;
  /// Sets username().
  void setUsername(std::optional<std::string> username);
  /// Full name.
  [[nodiscard]] std::optional<std::string> name() const;
  /// Sets name().
  void setName(std::optional<std::string> name);
  /// E-mail address.
  [[nodiscard]] std::optional<std::string> email() const;
  /// Sets email().
  void setEmail(std::optional<std::string> email);
  /// Telephone number.
  [[nodiscard]] std::optional<std::string> phone() const;
  /// Sets phone().
  void setPhone(std::optional<std::string> phone);
  /// The service's id of the person; the key of a room's occupant table.
  [[nodiscard]] std::optional<std::string> userId() const;
  /// Sets userId().
  void setUserId(std::optional<std::string> userId);

 private:
  // The fields, private to the .cpp file, under one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
