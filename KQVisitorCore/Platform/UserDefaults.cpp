#include <KQVisitorCore/Platform/UserDefaults.h>

#include <KQVisitorCore/Platform/Foundation.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace kq {

struct UserDefaults::Impl {
  Mutex mutex;
  Json values KQ_GUARDED_BY(mutex) = Json::object();
  std::uint64_t changeCount KQ_GUARDED_BY(mutex) = 0;
  std::uint64_t savedCount KQ_GUARDED_BY(mutex) = 0;
  bool writeScheduled KQ_GUARDED_BY(mutex) = false;
  std::shared_ptr<DispatchQueue> writer KQ_GUARDED_BY(mutex);
  // One writer of the file at a time; taken before `mutex`, never while holding it.
  Mutex writeMutex KQ_ACQUIRED_BEFORE(mutex);
};

namespace {

std::string errnoText() {
  return std::strerror(errno);
}

std::string folderOf(const std::string& path) {
  const auto slash = path.rfind('/');
  if (slash == std::string::npos) {
    return ".";
  }
  return slash == 0 ? "/" : path.substr(0, slash);
}

// mkdir -p, private to the user.
bool makeFolders(const std::string& folder) {
  if (folder.empty() || folder == "." || folder == "/") {
    return true;
  }
  struct stat info {};
  if (::stat(folder.c_str(), &info) == 0) {
    return S_ISDIR(info.st_mode);
  }
  if (!makeFolders(folderOf(folder))) {
    return false;
  }
  return ::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST;
}

bool writeAll(int fd, const std::string& data) {
  const char* cursor = data.data();
  size_t left = data.size();
  while (left > 0) {
    const ssize_t written = ::write(fd, cursor, left);
    if (written < 0) {
      if (errno == EINTR) {
        continue;
      }
      return false;
    }
    cursor += written;
    left -= static_cast<size_t>(written);
  }
  return true;
}

// Reads the whole file; on failure returns false with errno set.
bool readFile(const std::string& path, std::string& contents) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  char buffer[16384];
  while (true) {
    const ssize_t got = ::read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) {
      continue;
    }
    if (got <= 0) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return got == 0;
    }
    contents.append(buffer, static_cast<size_t>(got));
  }
}

// A name beside `path` that no file has yet, so that no earlier damaged file is replaced.
std::string damagedName(const std::string& path) {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y%m%dT%H%M%SZ", &utc);
  const std::string base = path + ".damaged-" + stamp;
  std::string candidate = base;
  for (int n = 2; ::access(candidate.c_str(), F_OK) == 0; ++n) {
    candidate = base + "-" + std::to_string(n);
  }
  return candidate;
}

}  // namespace

UserDefaults& UserDefaults::standard() {
  // Never destroyed: the library may write settings from its threads during process exit.
  static auto* defaults = [] {
    // A settings file the host named but the configuration file broke is not replaced by the
    // default one: the visitor's data would land where nobody looks for it.
    std::string path;
    try {
      path = KQVisitorConfig::sharedFor({"userDefaultsPath"}).resolvedUserDefaultsPath();
    } catch (const KQVisitorConfig::Error& error) {
      log("UserDefaults: settings are kept in memory only and not saved: ", error.what());
    }
    auto* created = new UserDefaults(std::move(path));
    std::atexit([] { standard().synchronize(); });  // Changes of the last moments are not lost.
    return created;
  }();
  return *defaults;
}

UserDefaults::UserDefaults(std::string path)
    : path_(std::move(path)), impl_(std::make_unique<Impl>()) {
  load();
}

UserDefaults::~UserDefaults() {
  std::shared_ptr<DispatchQueue> writer;
  {
    MutexLock lock(impl_->mutex);
    writer = std::move(impl_->writer);
  }
  writer.reset();  // Joins the writer thread; a write it had queued is done here instead.
  try {
    synchronize();
  } catch (const std::exception& error) {  // out of memory, most likely: nothing left to do
    log("UserDefaults: settings of ", path_, " not saved: ", error.what());
  }
}

void UserDefaults::load() {
  if (path_.empty()) {
    return;
  }
  struct stat status {};
  if (::stat(path_.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
    // Not a damaged settings file but something else (a folder, a device): not ours to move.
    log("UserDefaults: ", path_, " is not a regular file; it is left alone and the settings ",
        "start empty and cannot be saved: remove it or set another userDefaultsPath");
    return;
  }
  std::string contents;
  if (!readFile(path_, contents)) {
    if (errno == ENOENT) {
      return;  // No settings saved yet.
    }
    setAside("cannot be read (" + errnoText() + ")");
    return;
  }
  Json parsed = Json::parse(contents, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    setAside("is not valid JSON");
  } else if (!parsed.is_object()) {
    setAside("does not hold a JSON object");
  } else {
    MutexLock lock(impl_->mutex);
    impl_->values = std::move(parsed);
  }
}

void UserDefaults::setAside(const std::string& problem) const {
  const std::string aside = damagedName(path_);
  if (::rename(path_.c_str(), aside.c_str()) == 0) {
    log("UserDefaults: ", path_, " ", problem, "; moved it to ", aside,
        " and started with empty settings");
  } else {
    log("UserDefaults: ", path_, " ", problem, " and cannot be moved aside (", errnoText(),
        "); started with empty settings, which the next save writes over it");
  }
}

std::optional<UserDefaults::Json> UserDefaults::objectForKey(const std::string& key) const {
  MutexLock lock(impl_->mutex);
  const auto found = impl_->values.find(key);
  if (found == impl_->values.end()) {
    return std::nullopt;
  }
  return *found;
}

void UserDefaults::setObject(Json value, const std::string& key) {
  if (value.is_null()) {
    removeObjectForKey(key);
    return;
  }
  {
    MutexLock lock(impl_->mutex);
    impl_->values[key] = std::move(value);
  }
  markChanged();
}

void UserDefaults::removeObjectForKey(const std::string& key) {
  {
    MutexLock lock(impl_->mutex);
    if (impl_->values.erase(key) == 0) {
      return;
    }
  }
  markChanged();
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
  const auto value = objectForKey(key);
  if (!value) {
    return std::nullopt;
  }
  if (value->is_string()) {
    return value->get<std::string>();
  }
  if (value->is_number()) {
    return value->dump();
  }
  return std::nullopt;
}

std::optional<UserDefaults::Json> UserDefaults::dictionaryForKey(const std::string& key) const {
  auto value = objectForKey(key);
  if (!value || !value->is_object()) {
    return std::nullopt;
  }
  return value;
}

std::int64_t UserDefaults::integerForKey(const std::string& key) const {
  const auto value = objectForKey(key);
  if (!value) {
    return 0;
  }
  if (value->is_number_integer()) {
    return value->get<std::int64_t>();
  }
  if (value->is_number_float()) {
    const double number = value->get<double>();
    return std::isfinite(number) ? static_cast<std::int64_t>(number) : 0;
  }
  if (value->is_boolean()) {
    return value->get<bool>() ? 1 : 0;
  }
  if (value->is_string()) {
    return integerValue(value->get<std::string>());
  }
  return 0;
}

void UserDefaults::setInteger(std::int64_t value, const std::string& key) {
  setObject(value, key);
}

bool UserDefaults::boolForKey(const std::string& key) const {
  const auto value = objectForKey(key);
  return value && boolValue(*value);
}

void UserDefaults::setBool(bool value, const std::string& key) {
  setObject(value, key);
}

void UserDefaults::markChanged() {
  std::shared_ptr<DispatchQueue> writer;
  {
    MutexLock lock(impl_->mutex);
    ++impl_->changeCount;
    if (impl_->writeScheduled || path_.empty()) {
      return;
    }
    impl_->writeScheduled = true;
    if (!impl_->writer) {
      impl_->writer = DispatchQueue::create("kq.userdefaults");
    }
    writer = impl_->writer;
  }
  writer->asyncAfter(kDeferredWriteDelay, [this] { synchronize(); });
}

bool UserDefaults::synchronize() {
  if (path_.empty()) {
    return false;
  }
  std::optional<std::string> problem;
  {
    MutexLock writeLock(impl_->writeMutex);
    Json snapshot;
    std::uint64_t count = 0;
    {
      MutexLock lock(impl_->mutex);
      impl_->writeScheduled = false;
      if (impl_->changeCount == impl_->savedCount) {
        return true;  // The file already holds these settings.
      }
      snapshot = impl_->values;
      count = impl_->changeCount;
    }
    problem = writeSnapshot(snapshot);
    if (!problem) {
      MutexLock lock(impl_->mutex);
      impl_->savedCount = count;
    }
  }
  if (problem) {
    log(*problem);  // outside the locks: the log sink is the host's code
    return false;
  }
  return true;
}

std::optional<std::string> UserDefaults::writeSnapshot(const Json& snapshot) const {
  const std::string folder = folderOf(path_);
  if (!makeFolders(folder)) {
    return "UserDefaults: cannot create the folder " + folder + " (" + errnoText() +
           "); settings not saved";
  }
  std::string temporary = path_ + ".XXXXXX";
  const int fd = ::mkstemp(temporary.data());
  if (fd < 0) {
    return "UserDefaults: cannot create a file in " + folder + " (" + errnoText() +
           "); settings not saved";
  }
  // Invalid UTF-8 in a stored string is written as U+FFFD rather than failing the save.
  const std::string text =
      snapshot.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
  const bool written = ::fchmod(fd, 0600) == 0 && writeAll(fd, text) && ::fsync(fd) == 0;
  const std::string writeError = written ? "" : errnoText();
  ::close(fd);
  if (!written || ::rename(temporary.c_str(), path_.c_str()) != 0) {
    const std::string problem = "UserDefaults: cannot write " + path_ + " (" +
                                (written ? errnoText() : writeError) + "); settings not saved";
    ::unlink(temporary.c_str());
    return problem;
  }
  // The rename is durable only once the folder's entry is on disk too.
  const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    ::fsync(folderFd);
    ::close(folderFd);
  }
  return std::nullopt;
}

}  // namespace kq
