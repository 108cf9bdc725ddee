#include "tests/support/RecordingHTTPServer.h"

#include "tests/support/MainQueue.h"

#include <httplib.h>

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <strings.h>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

// cpp-httplib comes as a shared library built without ThreadSanitizer: its function-local
// statics are guarded by code TSan cannot see, so its worker threads' first reads of them look
// like races. Accesses made from inside that library are not checked; our handlers are.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier)
  return "called_from_lib:libcpp-httplib.so\n";
}

namespace kq::test {

std::optional<std::string> RecordedRequest::header(const std::string& name) const {
  for (const auto& [field, value] : headers) {
    if (strcasecmp(field.c_str(), name.c_str()) == 0) {
      return value;
    }
  }
  return std::nullopt;
}

// --- RecordingHTTPServer ----------------------------------------------------------------------

struct RecordingHTTPServer::Impl {
  std::unique_ptr<httplib::Server> server;
  std::thread thread;
  int port = 0;
  bool tls = false;

  mutable std::mutex mutex;
  mutable std::condition_variable changed;
  std::vector<RecordedRequest> requests;  // guarded by mutex
  std::deque<ScriptedResponse> script;    // guarded by mutex
  ScriptedResponse fallback;              // guarded by mutex
  bool holding = false;                   // guarded by mutex
  Responder responder;                    // guarded by mutex

  void handle(const httplib::Request& request, httplib::Response& response) {
    RecordedRequest recorded{request.method, request.target, request.body, {}, request.remote_port};
    for (const auto& [name, value] : request.headers) {
      if (name != "REMOTE_ADDR" && name != "REMOTE_PORT" && name != "LOCAL_ADDR" &&
          name != "LOCAL_PORT") {
        recorded.headers.emplace_back(name, value);
      }
    }
    ScriptedResponse answer;
    {
      std::unique_lock lock(mutex);
      requests.push_back(recorded);
      changed.notify_all();
      changed.wait(lock, [this] { return !holding; });
      std::optional<ScriptedResponse> decided;
      if (responder) {
        decided = responder(recorded);
      }
      if (decided) {
        answer = std::move(*decided);
      } else if (script.empty()) {
        answer = fallback;
      } else {
        answer = std::move(script.front());
        script.pop_front();
      }
    }
    response.status = answer.status;
    for (const auto& [name, value] : answer.headers) {
      response.set_header(name, value);
    }
    response.set_content(answer.body, answer.contentType);
  }
};

RecordingHTTPServer::RecordingHTTPServer(std::optional<TLS> tls) : impl_(std::make_unique<Impl>()) {
  if (tls) {
    impl_->server =
        std::make_unique<httplib::SSLServer>(tls->certFile.c_str(), tls->keyFile.c_str());
    impl_->tls = true;
  } else {
    impl_->server = std::make_unique<httplib::Server>();
  }
  if (!impl_->server->is_valid()) {
    throw std::runtime_error("RecordingHTTPServer: cannot set up the server");
  }
  auto& server = *impl_->server;
  server.set_tcp_nodelay(true);
  server.set_keep_alive_max_count(100000);
  // An idle connection closes after a second: stopping waits for the idle ones to close.
  server.set_keep_alive_timeout(1);
  // Idle keep-alive connections hold a worker each: enough workers for every concurrent test.
  server.new_task_queue = [] { return new httplib::ThreadPool(64); };
  server.set_payload_max_length(std::size_t{64} * 1024 * 1024);
  const auto handler = [impl = impl_.get()](const httplib::Request& request,
                                            httplib::Response& response) {
    impl->handle(request, response);
  };
  server.Get(".*", handler);
  server.Post(".*", handler);
  server.Put(".*", handler);
  server.Delete(".*", handler);
  server.Patch(".*", handler);
  server.Options(".*", handler);
  impl_->port = server.bind_to_any_port("127.0.0.1");
  if (impl_->port <= 0) {
    throw std::runtime_error("RecordingHTTPServer: cannot bind to 127.0.0.1");
  }
  impl_->thread = std::thread([&server] { server.listen_after_bind(); });
  // stop() only takes effect once the server runs.
  const auto giveUp = std::chrono::steady_clock::now() + kPatience;
  while (!server.is_running() && std::chrono::steady_clock::now() < giveUp) {
    std::this_thread::yield();
  }
}

RecordingHTTPServer::~RecordingHTTPServer() {
  release();
  impl_->server->stop();
  impl_->thread.join();
}

std::string RecordingHTTPServer::origin() const {
  return std::string(impl_->tls ? "https" : "http") + "://127.0.0.1:" + std::to_string(impl_->port);
}

void RecordingHTTPServer::setDefaultResponse(ScriptedResponse response) {
  std::scoped_lock lock(impl_->mutex);
  impl_->fallback = std::move(response);
}

void RecordingHTTPServer::setResponder(Responder responder) {
  std::scoped_lock lock(impl_->mutex);
  impl_->responder = std::move(responder);
}

void RecordingHTTPServer::enqueueResponse(ScriptedResponse response) {
  std::scoped_lock lock(impl_->mutex);
  impl_->script.push_back(std::move(response));
}

void RecordingHTTPServer::holdResponses() {
  std::scoped_lock lock(impl_->mutex);
  impl_->holding = true;
}

void RecordingHTTPServer::release() {
  {
    std::scoped_lock lock(impl_->mutex);
    impl_->holding = false;
  }
  impl_->changed.notify_all();
}

std::vector<RecordedRequest> RecordingHTTPServer::requests() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->requests;
}

bool RecordingHTTPServer::waitForRequests(std::size_t count) const {
  std::unique_lock lock(impl_->mutex);
  return impl_->changed.wait_for(lock, kPatience, [&] { return impl_->requests.size() >= count; });
}

// --- RawHTTPServer ----------------------------------------------------------------------------

namespace {

// Reads one request (head, then as many body bytes as Content-Length says) from `fd`.
std::string readRequest(int fd) {
  std::string data;
  char buffer[4096];
  for (std::size_t wanted = std::string::npos;
       wanted == std::string::npos || data.size() < wanted;) {
    const ssize_t received = recv(fd, buffer, sizeof buffer, 0);
    if (received <= 0) {
      break;
    }
    data.append(buffer, static_cast<std::size_t>(received));
    const auto headEnd = wanted == std::string::npos ? data.find("\r\n\r\n") : std::string::npos;
    if (headEnd != std::string::npos) {
      const std::string head = data.substr(0, headEnd);
      const char* field = strcasestr(head.c_str(), "\r\ncontent-length:");
      wanted = headEnd + 4 + (field != nullptr ? std::stoul(field + 17) : 0);
    }
  }
  return data;
}

}  // namespace

struct RawHTTPServer::Impl {
  std::string fallback;
  int listener = -1;
  int wake = -1;
  std::uint16_t port = 0;
  std::thread thread;
  mutable std::mutex mutex;
  std::vector<std::string> requests;  // guarded by mutex
  std::deque<std::string> script;     // guarded by mutex

  void serve() {
    pollfd watched[2] = {{listener, POLLIN, 0}, {wake, POLLIN, 0}};
    for (;;) {
      if (poll(watched, 2, -1) < 0 || watched[1].revents != 0) {
        return;
      }
      const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) {
        continue;
      }
      const int on = 1;
      setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
      // A client that never finishes its request cannot hold the server forever.
      timeval patience{std::chrono::duration_cast<std::chrono::seconds>(kPatience).count(), 0};
      setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
      std::string request = readRequest(connection);
      std::string response;
      {
        std::scoped_lock lock(mutex);
        requests.push_back(std::move(request));
        if (script.empty()) {
          response = fallback;
        } else {
          response = std::move(script.front());
          script.pop_front();
        }
      }
      (void)!send(connection, response.data(), response.size(), MSG_NOSIGNAL);
      shutdown(connection, SHUT_WR);
      close(connection);
    }
  }
};

RawHTTPServer::RawHTTPServer(std::string rawResponse) : impl_(std::make_unique<Impl>()) {
  impl_->fallback = std::move(rawResponse);
  impl_->listener = listenOnLoopback(impl_->port);
  impl_->wake = eventfd(0, EFD_CLOEXEC);
  impl_->thread = std::thread([impl = impl_.get()] { impl->serve(); });
}

RawHTTPServer::~RawHTTPServer() {
  const std::uint64_t one = 1;
  (void)!write(impl_->wake, &one, sizeof one);
  impl_->thread.join();
  close(impl_->listener);
  close(impl_->wake);
}

std::string RawHTTPServer::origin() const {
  return "http://127.0.0.1:" + std::to_string(impl_->port);
}

void RawHTTPServer::enqueueResponse(std::string rawResponse) {
  std::scoped_lock lock(impl_->mutex);
  impl_->script.push_back(std::move(rawResponse));
}

std::vector<std::string> RawHTTPServer::rawRequests() const {
  std::scoped_lock lock(impl_->mutex);
  return impl_->requests;
}

std::string rawResponse(int status, const std::string& body) {
  return "HTTP/1.1 " + std::to_string(status) + " Scripted\r\nContent-Type: text/plain\r\n" +
         "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" + body;
}

}  // namespace kq::test
