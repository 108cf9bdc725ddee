#include "tests/support/FaultRelay.h"

#include <KQVisitorCore/Platform/detail/Guarded.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/write.hpp>

#include <array>
#include <future>
#include <optional>
#include <set>
#include <stdexcept>
#include <thread>

namespace kq::test {

namespace {

using asio::ip::tcp;

// One connection through the relay, and a pump for each direction. It lives as long as the
// relay's set or a pending operation holds it.
struct Connection {
  // Moves bytes from one socket to the other, one chunk at a time.
  struct Pump {
    tcp::socket& from;
    tcp::socket& to;
    std::array<char, 16384> buffer{};
    bool parked = false;  // stopped by a silent drop, no operation pending
  };

  Connection(tcp::socket accepted, asio::io_context& io)
      : client(std::move(accepted)), server(io) {}

  tcp::socket client;
  tcp::socket server;
  Pump up{client, server};
  Pump down{server, client};
  bool closed = false;
};

using ConnectionPtr = std::shared_ptr<Connection>;

}  // namespace

struct FaultRelay::Impl {
  explicit Impl(std::uint16_t target) : targetPort(target) {}

  void accept();
  // Waits until `pump`'s source has bytes, then forwards them and waits again; parks instead
  // while dropping.
  void pump(const ConnectionPtr& connection, Connection::Pump& pump);
  void close(const ConnectionPtr& connection, bool resetClient);
  // Runs `function` on the relay's thread and waits until it has run.
  template <class Function>
  void run(Function function) {
    std::promise<void> done;
    asio::post(io, [&] {
      function();
      done.set_value();
    });
    done.get_future().wait();
  }

  asio::io_context io;
  std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work{io.get_executor()};
  tcp::acceptor acceptor{io};
  std::uint16_t targetPort;
  std::uint16_t port = 0;
  // The relay's thread alone touches these two.
  std::set<ConnectionPtr> connections;
  bool dropping = false;
  Guarded<Counts> counts;
  std::thread thread;
};

void FaultRelay::Impl::accept() {
  acceptor.async_accept([this](std::error_code error, tcp::socket socket) {
    if (error == asio::error::operation_aborted) {
      return;  // the relay is closing
    }
    if (!error) {
      auto connection = std::make_shared<Connection>(std::move(socket), io);
      connections.insert(connection);
      counts.with([](Counts& now) { ++now.accepted; });
      connection->server.async_connect(
          tcp::endpoint(asio::ip::address_v4::loopback(), targetPort),
          [this, connection](std::error_code connectError) {
            if (connection->closed) {
              return;
            }
            if (connectError) {
              close(connection, true);  // refused by the target: the client hears a reset
              return;
            }
            std::error_code ignored;
            for (auto* side : {&connection->client, &connection->server}) {
              side->set_option(tcp::no_delay(true), ignored);
              side->non_blocking(true, ignored);
            }
            pump(connection, connection->up);
            pump(connection, connection->down);
          });
    }
    accept();
  });
}

void FaultRelay::Impl::pump(const ConnectionPtr& connection, Connection::Pump& pump) {
  if (dropping) {
    pump.parked = true;
    return;
  }
  pump.from.async_wait(tcp::socket::wait_read, [this, connection, &pump](std::error_code error) {
    if (connection->closed) {
      return;
    }
    if (error) {
      close(connection, false);
      return;
    }
    if (dropping) {  // began while waiting: the bytes stay in the kernel
      pump.parked = true;
      return;
    }
    std::error_code readError;
    const std::size_t size = pump.from.read_some(asio::buffer(pump.buffer), readError);
    if (readError == asio::error::would_block || readError == asio::error::try_again) {
      this->pump(connection, pump);
      return;
    }
    if (readError) {  // closed or reset: end the other side too
      close(connection, false);
      return;
    }
    asio::async_write(pump.to, asio::buffer(pump.buffer.data(), size),
                      [this, connection, &pump](std::error_code writeError, std::size_t) {
                        if (connection->closed) {
                          return;
                        }
                        if (writeError) {
                          close(connection, false);
                          return;
                        }
                        this->pump(connection, pump);
                      });
  });
}

void FaultRelay::Impl::close(const ConnectionPtr& connection, bool resetClient) {
  if (connection->closed) {
    return;
  }
  connection->closed = true;
  std::error_code ignored;
  if (resetClient) {
    // A zero linger time makes close() send a reset instead of a FIN.
    connection->client.set_option(asio::socket_base::linger(true, 0), ignored);
  }
  connection->client.close(ignored);
  connection->server.close(ignored);
  connections.erase(connection);
}

FaultRelay::FaultRelay(std::uint16_t targetPort) : impl_(std::make_unique<Impl>(targetPort)) {
  std::error_code error;
  const tcp::endpoint loopback(asio::ip::address_v4::loopback(), 0);
  impl_->acceptor.open(loopback.protocol(), error);
  if (!error) {
    impl_->acceptor.bind(loopback, error);
  }
  if (!error) {
    impl_->acceptor.listen(asio::socket_base::max_listen_connections, error);
  }
  if (error) {
    throw std::runtime_error("the fault relay cannot listen on 127.0.0.1: " + error.message());
  }
  impl_->port = impl_->acceptor.local_endpoint().port();
  impl_->accept();
  impl_->thread = std::thread([impl = impl_.get()] { impl->io.run(); });
}

FaultRelay::~FaultRelay() {
  // Once everything is closed and the aborted operations have run, the loop runs out of work.
  impl_->run([impl = impl_.get()] {
    std::error_code ignored;
    impl->acceptor.close(ignored);
    for (const auto& connection : std::set(impl->connections)) {
      impl->close(connection, false);
    }
    impl->work.reset();
  });
  impl_->thread.join();
}

std::uint16_t FaultRelay::port() const {
  return impl_->port;
}

void FaultRelay::reset() {
  impl_->run([impl = impl_.get()] {
    for (const auto& connection : std::set(impl->connections)) {
      impl->close(connection, true);
    }
  });
}

void FaultRelay::dropSilently(bool dropping) {
  impl_->run([impl = impl_.get(), dropping] {
    impl->dropping = dropping;
    if (dropping) {
      return;
    }
    for (const auto& connection : impl->connections) {
      for (auto* pump : {&connection->up, &connection->down}) {
        if (pump->parked) {
          pump->parked = false;
          impl->pump(connection, *pump);
        }
      }
    }
  });
}

FaultRelay::Counts FaultRelay::counts() const {
  return impl_->counts.with([](const Counts& now) { return now; });
}

}  // namespace kq::test
