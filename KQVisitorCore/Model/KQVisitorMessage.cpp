#include <KQVisitorCore/Model/KQVisitorMessage.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {

struct KQVisitorMessage::State {
  std::optional<std::string> message;
  std::optional<std::string> managerId;
  std::shared_ptr<KQVisitorUser> sender;
  std::optional<Date> timeStamp;
  std::int64_t messageType = 0;
};

KQVisitorMessage::KQVisitorMessage() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorMessage::~KQVisitorMessage() = default;

std::optional<std::string> KQVisitorMessage::message() const {
  return state_->get(&State::message);
}

void KQVisitorMessage::setMessage(std::optional<std::string> message) {
  state_->set(&State::message, std::move(message));
}

std::optional<std::string> KQVisitorMessage::managerId() const {
  return state_->get(&State::managerId);
}

void KQVisitorMessage::setManagerId(std::optional<std::string> managerId) {
  state_->set(&State::managerId, std::move(managerId));
}

std::shared_ptr<KQVisitorUser> KQVisitorMessage::sender() const {
  return state_->get(&State::sender);
}

void KQVisitorMessage::setSender(std::shared_ptr<KQVisitorUser> sender) {
  state_->set(&State::sender, std::move(sender));
}

std::optional<Date> KQVisitorMessage::timeStamp() const {
  return state_->get(&State::timeStamp);
}

void KQVisitorMessage::setTimeStamp(std::optional<Date> timeStamp) {
  state_->set(&State::timeStamp, timeStamp);
}

std::int64_t KQVisitorMessage::messageType() const {
  return state_->get(&State::messageType);
}

void KQVisitorMessage::setMessageType(std::int64_t messageType) {
  state_->set(&State::messageType, messageType);
}

}  // namespace kq
