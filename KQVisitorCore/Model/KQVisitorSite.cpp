#include <KQVisitorCore/Model/KQVisitorSite.h>

namespace kq {

std::optional<std::string> KQVisitorSite::siteId() const {
  std::scoped_lock lock(mutex_);
  return siteId_;
}

void KQVisitorSite::setSiteId(std::optional<std::string> siteId) {
  std::scoped_lock lock(mutex_);
  siteId_ = std::move(siteId);
}

std::optional<std::string> KQVisitorSite::siteName() const {
  std::scoped_lock lock(mutex_);
  return siteName_;
}

void KQVisitorSite::setSiteName(std::optional<std::string> siteName) {
  std::scoped_lock lock(mutex_);
  siteName_ = std::move(siteName);
}

std::optional<std::string> KQVisitorSite::siteDesc() const {
  std::scoped_lock lock(mutex_);
  return siteDesc_;
}

void KQVisitorSite::setSiteDesc(std::optional<std::string> siteDesc) {
  std::scoped_lock lock(mutex_);
  siteDesc_ = std::move(siteDesc);
}

std::int64_t KQVisitorSite::indexInArray() const {
  std::scoped_lock lock(mutex_);
  return indexInArray_;
}

void KQVisitorSite::setIndexInArray(std::int64_t indexInArray) {
  std::scoped_lock lock(mutex_);
  indexInArray_ = indexInArray;
}

std::shared_ptr<KQVisitorRoomTable> KQVisitorSite::rooms() {
  std::scoped_lock lock(mutex_);
  if (!rooms_) {
    rooms_ = std::make_shared<KQVisitorRoomTable>();
  }
  return rooms_;
}

void KQVisitorSite::setRooms(std::shared_ptr<KQVisitorRoomTable> rooms) {
  std::scoped_lock lock(mutex_);
  rooms_ = std::move(rooms);
}

}  // namespace kq
