#include <KQVisitorCore/Model/KQVisitorSite.h>

#include <KQVisitorCore/Platform/detail/Guarded.h>

namespace kq {

struct KQVisitorSite::State {
  std::optional<std::string> siteId;
  std::optional<std::string> siteName;
  std::optional<std::string> siteDesc;
  std::int64_t indexInArray = 0;
  std::shared_ptr<KQVisitorRoomTable> rooms;
};

KQVisitorSite::KQVisitorSite() : state_(std::make_unique<Guarded<State>>()) {}

KQVisitorSite::~KQVisitorSite() = default;

std::optional<std::string> KQVisitorSite::siteId() const {
  return state_->get(&State::siteId);
}

void KQVisitorSite::setSiteId(std::optional<std::string> siteId) {
  state_->set(&State::siteId, std::move(siteId));
}

std::optional<std::string> KQVisitorSite::siteName() const {
  return state_->get(&State::siteName);
}

void KQVisitorSite::setSiteName(std::optional<std::string> siteName) {
  state_->set(&State::siteName, std::move(siteName));
}

std::optional<std::string> KQVisitorSite::siteDesc() const {
  return state_->get(&State::siteDesc);
}

void KQVisitorSite::setSiteDesc(std::optional<std::string> siteDesc) {
  state_->set(&State::siteDesc, std::move(siteDesc));
}

std::int64_t KQVisitorSite::indexInArray() const {
  return state_->get(&State::indexInArray);
}

void KQVisitorSite::setIndexInArray(std::int64_t indexInArray) {
  state_->set(&State::indexInArray, indexInArray);
}

std::shared_ptr<KQVisitorRoomTable> KQVisitorSite::rooms() {
  return state_->with([](State& state) {
    if (!state.rooms) {
      state.rooms = std::make_shared<KQVisitorRoomTable>();
    }
    return state.rooms;
  });
}

void KQVisitorSite::setRooms(std::shared_ptr<KQVisitorRoomTable> rooms) {
  state_->set(&State::rooms, std::move(rooms));
}

}  // namespace kq
