#pragma once

#include <KQVisitorCore/Model/KQVisitorMessageType.h>
#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kq {

template <class T>
class Guarded;

/// One line of a conversation as the host application shows it. Fields may be read and written
/// from any thread; a new message has every field absent and messageType 0.
class KQ_EXPORT KQVisitorMessage {
 public:
  KQVisitorMessage();
  ~KQVisitorMessage();
  KQVisitorMessage(const KQVisitorMessage&) = delete;
  KQVisitorMessage& operator=(const KQVisitorMessage&) = delete;

  /// The text.
  [[nodiscard]] std::optional<std::string> message() const;
  /// Sets message().
  void setMessage(std::optional<std::string> message);
  /// The operator (manager) id of the packet; "0" for the greeting and HTTP messages.
  [[nodiscard]] std::optional<std::string> managerId() const;
  /// Sets managerId().
  void setManagerId(std::optional<std::string> managerId);
  /// Who wrote it, shared with whoever else holds the user; null when unknown.
  [[nodiscard]] std::shared_ptr<KQVisitorUser> sender() const;
  /// Sets sender(); the message shares ownership of the user.
  void setSender(std::shared_ptr<KQVisitorUser> sender);
  /// When it was sent.
  [[nodiscard]] std::optional<Date> timeStamp() const;
  /// Sets timeStamp().
  void setTimeStamp(std::optional<Date> timeStamp);
  /// One of KQVisitorMessageType.
  [[nodiscard]] std::int64_t messageType() const;
  /// Sets messageType().
  void setMessageType(std::int64_t messageType);

  /// True when the sender is the very user object that is the web service's current user; a
  /// different user object with the same fields does not count, nor does an absent sender.
  /// (Defined beside the web service, which holds the current user: a record reaches nothing
  /// above it.)
  [[nodiscard]] bool isMessageByCurrentUser() const;

 private:
  // The fields, private to the .cpp file, under one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
