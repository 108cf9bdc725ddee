#include <KQVisitorCore/Model/KQVisitorMessage.h>

namespace kq {

std::optional<std::string> KQVisitorMessage::message() const {
  std::scoped_lock lock(mutex_);
  return message_;
}

void KQVisitorMessage::setMessage(std::optional<std::string> message) {
  std::scoped_lock lock(mutex_);
  message_ = std::move(message);
}

std::optional<std::string> KQVisitorMessage::managerId() const {
  std::scoped_lock lock(mutex_);
  return managerId_;
}

void KQVisitorMessage::setManagerId(std::optional<std::string> managerId) {
  std::scoped_lock lock(mutex_);
  managerId_ = std::move(managerId);
}

std::shared_ptr<KQVisitorUser> KQVisitorMessage::sender() const {
  std::scoped_lock lock(mutex_);
  return sender_;
}

void KQVisitorMessage::setSender(std::shared_ptr<KQVisitorUser> sender) {
  std::scoped_lock lock(mutex_);
  sender_ = std::move(sender);
}

std::optional<Date> KQVisitorMessage::timeStamp() const {
  std::scoped_lock lock(mutex_);
  return timeStamp_;
}

void KQVisitorMessage::setTimeStamp(std::optional<Date> timeStamp) {
  std::scoped_lock lock(mutex_);
  timeStamp_ = timeStamp;
}

std::int64_t KQVisitorMessage::messageType() const {
  std::scoped_lock lock(mutex_);
  return messageType_;
}

void KQVisitorMessage::setMessageType(std::int64_t messageType) {
  std::scoped_lock lock(mutex_);
  messageType_ = messageType;
}

}  // namespace kq
