#include <KQVisitorCore/Platform/Reachability.h>

#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/detail/OwnedThread.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <utility>

namespace kq {
namespace {

// One file descriptor, closed with its holder.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset(std::exchange(other.fd_, -1));
    }
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

struct AddressListDeleter {
  void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// Whether the system has a route to `host` now: a UDP socket's connect() picks the route and
// source address without sending anything.
NetworkStatus routeStatus(const std::string& host) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  if (getaddrinfo(host.c_str(), "9", &hints, &found) != 0 || found == nullptr) {
    return NetworkStatus::NotReachable;
  }
  const std::unique_ptr<addrinfo, AddressListDeleter> addresses(found);
  for (const addrinfo* address = found; address != nullptr; address = address->ai_next) {
    const FileDescriptor probe(socket(address->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.valid() && connect(probe.get(), address->ai_addr, address->ai_addrlen) == 0) {
      return NetworkStatus::ReachableViaWiFi;
    }
  }
  return NetworkStatus::NotReachable;
}

bool isNumericAddress(const std::string& host) {
  addrinfo hints{};
  hints.ai_flags = AI_NUMERICHOST;
  hints.ai_socktype = SOCK_DGRAM;
  addrinfo* found = nullptr;
  const bool numeric = getaddrinfo(host.c_str(), nullptr, &hints, &found) == 0;
  if (found != nullptr) {
    freeaddrinfo(found);
  }
  return numeric;
}

// A socket that receives the kernel's notifications of link, address and route changes.
FileDescriptor openRouteNotifications() {
  FileDescriptor fd(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE));
  if (!fd.valid()) {
    log("Reachability: cannot open a netlink socket: ", std::strerror(errno));
    return fd;
  }
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups =
      RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE;
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    log("Reachability: cannot listen to routing changes: ", std::strerror(errno));
    fd.reset();
  }
  return fd;
}

// Reads every pending notification; their content does not matter, only that something
// changed. False when the socket failed for good.
bool drainNotifications(int fd) {
  char buffer[8192];
  for (;;) {
    const ssize_t received = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (received >= 0) {
      continue;
    }
    if (errno == EAGAIN || errno == EWOULDBLOCK) {
      return true;
    }
    if (errno == EINTR || errno == ENOBUFS) {
      continue;  // ENOBUFS: notifications were lost; the check that follows catches up
    }
    log("Reachability: routing notifications failed: ", std::strerror(errno));
    return false;
  }
}

}  // namespace

// One run of the notifier, from startNotifier() to stopNotifier(): stopped once it is no longer
// the reachability's notifier.
struct Notifier {
  FileDescriptor notifications;
  FileDescriptor wake;
  OwnedThread thread;
};

struct detail::ReachabilityImpl {
  using NetworkReachable = Reachability::NetworkReachable;
  using NetworkUnreachable = Reachability::NetworkUnreachable;
  ReachabilityImpl(std::string destination, bool reportsFirstStatus)
      : host(std::move(destination)), reportsInitialStatus(reportsFirstStatus) {}

  void run(const std::shared_ptr<Notifier>& current, std::optional<NetworkStatus> initial);
  void deliver(const Notifier& current, NetworkStatus status);
  // False once stopNotifier() has stopped `run`.
  [[nodiscard]] bool isRunning(const Notifier& run) const KQ_REQUIRES(mutex) {
    return notifier.get() == &run;
  }

  const std::string host;
  const bool reportsInitialStatus;

  mutable Mutex mutex;
  Reachability* owner KQ_GUARDED_BY(mutex) = nullptr;
  NetworkReachable reachable KQ_GUARDED_BY(mutex);
  NetworkUnreachable unreachable KQ_GUARDED_BY(mutex);
  std::shared_ptr<Notifier> notifier KQ_GUARDED_BY(mutex);
};

void detail::ReachabilityImpl::deliver(const Notifier& current, NetworkStatus status) {
  std::function<void(Reachability&)> block;
  Reachability* target = nullptr;
  {
    MutexLock lock(mutex);
    if (!isRunning(current) || owner == nullptr) {
      return;
    }
    block = status == NetworkStatus::NotReachable ? unreachable : reachable;
    target = owner;
  }
  // The owner stays alive meanwhile: stopping from another thread waits for this call.
  if (block) {
    block(*target);
  }
}

void detail::ReachabilityImpl::run(const std::shared_ptr<Notifier>& current,
                                   std::optional<NetworkStatus> initial) {
  NetworkStatus status = initial ? *initial : routeStatus(host);
  if (reportsInitialStatus) {
    deliver(*current, status);
  }
  pollfd watched[2] = {{current->notifications.get(), POLLIN, 0}, {current->wake.get(), POLLIN, 0}};
  for (;;) {
    {
      MutexLock lock(mutex);
      if (!isRunning(*current)) {
        return;
      }
    }
    if (poll(watched, 2, -1) < 0) {
      if (errno == EINTR) {
        continue;
      }
      log("Reachability: waiting for routing changes failed: ", std::strerror(errno));
      return;
    }
    if (watched[1].revents != 0) {
      return;
    }
    if (watched[0].revents != 0 && !drainNotifications(current->notifications.get())) {
      return;
    }
    const NetworkStatus now = routeStatus(host);
    if (now != status) {
      status = now;
      deliver(*current, status);
    }
  }
}

Reachability::Reachability(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {
  MutexLock lock(impl_->mutex);
  impl_->owner = this;
}

std::shared_ptr<Reachability> Reachability::reachabilityForInternetConnection() {
  std::string probe;
  try {
    probe = KQVisitorConfig::shared().reachabilityHost;
  } catch (const KQVisitorConfig::Error&) {
    probe = KQVisitorConfig().reachabilityHost;  // the reason is in the log already
  }
  return reachabilityWithAddress(std::move(probe));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithHostname(std::string hostname) {
  return std::shared_ptr<Reachability>(
      new Reachability(std::make_shared<Impl>(std::move(hostname), true)));
}

std::shared_ptr<Reachability> Reachability::reachabilityWithAddress(std::string address) {
  return std::shared_ptr<Reachability>(
      new Reachability(std::make_shared<Impl>(std::move(address), false)));
}

Reachability::~Reachability() {
  stopNotifier();
  MutexLock lock(impl_->mutex);
  impl_->owner = nullptr;
}

const std::string& Reachability::host() const {
  return impl_->host;
}

void Reachability::setReachableBlock(NetworkReachable block) {
  MutexLock lock(impl_->mutex);
  std::swap(impl_->reachable, block);
  // The previous handler is released below, outside the lock.
}

void Reachability::setUnreachableBlock(NetworkUnreachable block) {
  MutexLock lock(impl_->mutex);
  std::swap(impl_->unreachable, block);
}

bool Reachability::startNotifier() {
  {
    MutexLock lock(impl_->mutex);
    if (impl_->notifier) {
      return false;
    }
  }
  auto notifier = std::make_shared<Notifier>();
  notifier->notifications = openRouteNotifications();
  notifier->wake = FileDescriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!notifier->notifications.valid() || !notifier->wake.valid()) {
    return false;
  }
  // The starting point is taken after the notification socket exists, so that no change
  // falls between the two. An address answers at once; a name is resolved on the thread.
  std::optional<NetworkStatus> initial;
  if (isNumericAddress(impl_->host)) {
    initial = routeStatus(impl_->host);
  }
  MutexLock lock(impl_->mutex);
  if (impl_->notifier) {
    return false;  // another thread started it meanwhile
  }
  impl_->notifier = notifier;
  notifier->thread = OwnedThread(
      "kq.reachability", [impl = impl_, notifier, initial] { impl->run(notifier, initial); });
  return true;
}

void Reachability::stopNotifier() {
  std::shared_ptr<Notifier> notifier;
  {
    MutexLock lock(impl_->mutex);
    notifier = std::move(impl_->notifier);  // the run is stopped from here on
    if (!notifier) {
      return;
    }
  }
  const std::uint64_t one = 1;
  if (write(notifier->wake.get(), &one, sizeof one) < 0) {
    log("Reachability: cannot wake the notifier: ", std::strerror(errno));
  }
  // Inside a handler the thread cannot wait for itself: it ends after the handler returns.
  notifier->thread.release();
}

NetworkStatus Reachability::currentReachabilityStatus() const {
  return routeStatus(impl_->host);
}

}  // namespace kq
