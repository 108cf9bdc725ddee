// The XMPP client against a real Prosody on loopback over STARTTLS, beside a raw OpenSSL client
// that does the same exchanges with blocking calls on one thread:
//   Login      TCP connect, STARTTLS, SASL ANONYMOUS and resource binding, until the host hears
//              the visitor is logged in (warm: the server and the TLS context already exist).
//              Counts the logins slower than 30 ms ("stalls").
//   RoundTrip  a chat packet sent into a joined room until the room's reflection reaches the
//              host's main queue. Counts the process's context switches per trip.

#include "bench/RatioReporter.h"

#include <KQVisitorCore/Network/KQVisitorXMPPClient.h>
#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPRoom.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPRoomMemoryStorage.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include "tests/support/MainQueue.h"
#include "tests/support/ProsodyServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using kq::DispatchQueue;
using kq::KQVisitorXMPPClient;
using kq::test::ProsodyServer;

constexpr double kStallSeconds = 0.030;

// Started by main() before the benchmarks run, stopped after them.
std::unique_ptr<ProsodyServer> prosody;

// What the whole process (every thread) has used so far.
struct ProcessUsage {
  long contextSwitches = 0;
  double cpuSeconds = 0;

  static ProcessUsage now() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    };
    return {usage.ru_nvcsw + usage.ru_nivcsw, seconds(usage.ru_utime) + seconds(usage.ru_stime)};
  }
};

// Per trip: the process's context switches and its CPU time (all threads, in microseconds).
void countPerTrip(benchmark::State& state, const ProcessUsage& before) {
  const ProcessUsage after = ProcessUsage::now();
  const auto trips = static_cast<double>(state.iterations());
  state.counters["switches/trip"] =
      static_cast<double>(after.contextSwitches - before.contextSwitches) / trips;
  state.counters["cpu_us/trip"] = (after.cpuSeconds - before.cpuSeconds) * 1e6 / trips;
  state.SetItemsProcessed(state.iterations());
}

// Pumps the main queue until `done` answers true; throws after 10 s.
void pumpUntil(const std::function<bool()>& done) {
  if (!kq::test::runMainQueueUntil(done, std::chrono::seconds(10))) {
    throw std::runtime_error("the server did not answer within 10 s");
  }
}

// Times `login` once per iteration (after one warm-up login), with `logout` between them out of
// the timing; counts the stalled logins.
template <class Login, class Logout>
void timeLogins(benchmark::State& state, Login login, Logout logout) {
  login();
  logout();
  int stalls = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    login();
    const std::chrono::duration<double> took = Clock::now() - start;
    state.SetIterationTime(took.count());
    stalls += took.count() > kStallSeconds ? 1 : 0;
    logout();
  }
  state.counters["stalls"] = stalls;
}

// --- Ours -----------------------------------------------------------------------------------

struct StreamWatch : kq::xmpp::XMPPStreamDelegate {
  int authenticated = 0;
  int disconnected = 0;
  std::string error;
  void xmppStreamDidAuthenticate(kq::xmpp::XMPPStream& /*sender*/) override { ++authenticated; }
  void xmppStreamDidDisconnect(kq::xmpp::XMPPStream& /*sender*/,
                               const std::optional<kq::KQError>& failure) override {
    ++disconnected;
    error = failure ? failure->description() : "disconnected";
  }
};

struct RoomWatch : kq::xmpp::XMPPRoomDelegate {
  int joined = 0;
  int configured = 0;
  int reflected = 0;
  void xmppRoomDidJoin(kq::xmpp::XMPPRoom& /*sender*/) override { ++joined; }
  void xmppRoomDidConfigure(kq::xmpp::XMPPRoom& /*sender*/,
                            const kq::xmpp::XMPPIQ& /*result*/) override {
    ++configured;
  }
  void xmppRoomDidReceiveMessage(kq::xmpp::XMPPRoom& /*sender*/,
                                 const kq::xmpp::XMPPMessage& /*message*/,
                                 const kq::xmpp::XMPPJID& /*occupant*/) override {
    ++reflected;
  }
};

std::shared_ptr<kq::KQVisitorUser> visitor() {
  auto user = std::make_shared<kq::KQVisitorUser>();
  user->setUserId("b1");
  user->setUsername("Ann");
  return user;
}

// A logged-in client, as a host holds it.
struct OurVisitor {
  std::shared_ptr<KQVisitorXMPPClient> client = KQVisitorXMPPClient::createClient();
  std::shared_ptr<StreamWatch> watch = std::make_shared<StreamWatch>();

  OurVisitor() { client->addStreamDelegate(watch); }
  ~OurVisitor() { logout(); }
  OurVisitor(const OurVisitor&) = delete;
  OurVisitor& operator=(const OurVisitor&) = delete;

  void login() {
    const int before = watch->authenticated;
    const int disconnectsBefore = watch->disconnected;
    if (!client->connectUser(visitor())) {
      throw std::runtime_error("the client refused to connect");
    }
    pumpUntil(
        [&] { return watch->authenticated > before || watch->disconnected > disconnectsBefore; });
    if (watch->authenticated == before) {
      throw std::runtime_error("the visitor could not log in: " + watch->error);
    }
  }

  void logout() {
    if (client->xmppStream()->isDisconnected()) {
      return;
    }
    const int before = watch->disconnected;
    client->disconnect();
    pumpUntil([&] { return watch->disconnected > before; });
  }
};

void Login_ours(benchmark::State& state) {
  OurVisitor visitor;
  timeLogins(
      state, [&] { visitor.login(); }, [&] { visitor.logout(); });
}
BENCHMARK(Login_ours)->Name("Login/ours")->UseManualTime()->Unit(benchmark::kMillisecond);

void RoundTrip_ours(benchmark::State& state) {
  OurVisitor visitor;
  visitor.login();
  auto watch = std::make_shared<RoomWatch>();
  auto room = std::make_shared<kq::xmpp::XMPPRoom>(
      kq::xmpp::XMPPRoomMemoryStorage::sharedInstance(),
      *kq::xmpp::XMPPJID::jidWithString("ours@conference.localhost"), DispatchQueue::main());
  room->activate(visitor.client->xmppStream());
  room->addDelegate(watch, DispatchQueue::main());
  room->joinRoomUsingNickname("Ann", std::nullopt);
  pumpUntil([&] { return watch->joined == 1; });
  room->configureRoomUsingOptions(std::nullopt);
  pumpUntil([&] { return watch->configured == 1; });

  const ProcessUsage usage = ProcessUsage::now();
  for (auto _ : state) {
    const int before = watch->reflected;
    kq::sendKQVisitorMessage(room, "hello", "0", "W9", "0", "Ann", "1001");
    pumpUntil([&] { return watch->reflected > before; });
  }
  countPerTrip(state, usage);
  room->deactivate();
}
BENCHMARK(RoundTrip_ours)->Name("RoundTrip/ours")->UseRealTime()->Unit(benchmark::kMicrosecond);

// --- Raw OpenSSL --------------------------------------------------------------------------

constexpr const char* kStreamHeader =
    "<?xml version='1.0'?><stream:stream to='localhost' xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' version='1.0'>";

// The same exchanges written by hand: blocking socket, one thread, replies found by text.
class RawClient {
 public:
  RawClient(SSL_CTX* context, bool quickAck) : context_(context), quickAck_(quickAck) {}
  ~RawClient() { close(); }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  void login(std::uint16_t port) {
    socket_ = ::socket(AF_INET, SOCK_STREAM, 0);
    const int on = 1;
    setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      throw std::runtime_error("raw client: cannot connect");
    }
    send(kStreamHeader);
    readUntil("</stream:features>");
    send("<starttls xmlns='urn:ietf:params:xml:ns:xmpp-tls'/>");
    readUntil("<proceed");
    tls_ = SSL_new(context_);
    SSL_set_fd(tls_, socket_);
    static char serverName[] = "localhost";
    SSL_ctrl(tls_, SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name, serverName);
    SSL_set1_host(tls_, "127.0.0.1");
    ackQuickly();
    if (SSL_connect(tls_) != 1) {
      throw std::runtime_error("raw client: TLS handshake failed");
    }
    send(kStreamHeader);
    readUntil("</stream:features>");
    send("<auth xmlns='urn:ietf:params:xml:ns:xmpp-sasl' mechanism='ANONYMOUS'/>");
    readUntil("<success");
    send(kStreamHeader);
    readUntil("</stream:features>");
    send(
        "<iq type='set' id='bind1'><bind xmlns='urn:ietf:params:xml:ns:xmpp-bind'>"
        "<resource>raw</resource></bind></iq>");
    readUntil("</iq>");
  }

  void joinRoom(const std::string& room) {
    send("<presence to='" + room +
         "/Raw'><x xmlns='http://jabber.org/protocol/muc'>"
         "<history maxstanzas='0'/></x></presence>");
    readUntil("code='110'");
    send("<iq type='set' to='" + room +
         "' id='config1'><query "
         "xmlns='http://jabber.org/protocol/muc#owner'><x xmlns='jabber:x:data' "
         "type='submit'/></query></iq>");
    readUntil("id='config1'");
    room_ = room;
  }

  // One chat packet like ours, with a body the reflection is recognised by.
  void roundTrip(int trip) {
    const std::string body = "hello " + std::to_string(trip);
    send("<message to='" + room_ +
         "' type='groupchat' user_id='0' custom_packet='true' website_id='W9' manager_id='0' "
         "chat_id='1001' visitor_name='Ann' time_stamp='2026-11-23 10:00:00'><body>" +
         body + "</body></message>");
    readUntil(body + "</body>");
    readUntil("</message>");
  }

  void close() {
    if (tls_ != nullptr) {
      SSL_shutdown(tls_);
      SSL_free(tls_);
      tls_ = nullptr;
    }
    if (socket_ >= 0) {
      ::close(socket_);
      socket_ = -1;
    }
    received_.clear();
  }

 private:
  void send(const std::string& text) {
    const int written = tls_ != nullptr
                            ? SSL_write(tls_, text.data(), static_cast<int>(text.size()))
                            : static_cast<int>(::send(socket_, text.data(), text.size(), 0));
    if (written != static_cast<int>(text.size())) {
      throw std::runtime_error("raw client: write failed");
    }
    ackQuickly();
  }

  // Reads until `marker` has arrived, and drops what was read up to its end.
  void readUntil(const std::string& marker) {
    for (;;) {
      const auto found = received_.find(marker);
      if (found != std::string::npos) {
        received_.erase(0, found + marker.size());
        return;
      }
      char buffer[16384];
      const int count = tls_ != nullptr
                            ? SSL_read(tls_, buffer, sizeof buffer)
                            : static_cast<int>(::recv(socket_, buffer, sizeof buffer, 0));
      if (count <= 0) {
        throw std::runtime_error("raw client: the server closed before " + marker);
      }
      received_.append(buffer, static_cast<std::size_t>(count));
      ackQuickly();
    }
  }

  void ackQuickly() const {
    if (quickAck_) {
      const int on = 1;
      setsockopt(socket_, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof on);
    }
  }

  SSL_CTX* context_;
  bool quickAck_;
  int socket_ = -1;
  SSL* tls_ = nullptr;
  std::string received_;
  std::string room_;
};

SSL_CTX* rawContext() {
  static SSL_CTX* const context = [] {
    SSL_CTX* made = SSL_CTX_new(TLS_client_method());
    SSL_CTX_set_verify(made, SSL_VERIFY_PEER, nullptr);
    SSL_CTX_load_verify_locations(made, prosody->caFile().c_str(), nullptr);
    SSL_CTX_set_session_cache_mode(made, SSL_SESS_CACHE_OFF);
    return made;
  }();
  return context;
}

void runRawLogins(benchmark::State& state, bool quickAck) {
  RawClient client(rawContext(), quickAck);
  timeLogins(
      state, [&] { client.login(prosody->port()); }, [&] { client.close(); });
}

void Login_openssl(benchmark::State& state) {
  runRawLogins(state, false);
}
BENCHMARK(Login_openssl)->Name("Login/openssl")->UseManualTime()->Unit(benchmark::kMillisecond);

// The same with TCP_QUICKACK set before the handshake and after each read and write.
void Login_opensslQuickAck(benchmark::State& state) {
  runRawLogins(state, true);
}
BENCHMARK(Login_opensslQuickAck)
    ->Name("Login/openssl-quickack")
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void RoundTrip_openssl(benchmark::State& state) {
  RawClient client(rawContext(), false);
  client.login(prosody->port());
  client.joinRoom("raw@conference.localhost");
  int trip = 0;
  const ProcessUsage usage = ProcessUsage::now();
  for (auto _ : state) {
    client.roundTrip(++trip);
  }
  countPerTrip(state, usage);
}
BENCHMARK(RoundTrip_openssl)
    ->Name("RoundTrip/openssl")
    ->UseRealTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  try {
    prosody = std::make_unique<ProsodyServer>(ProsodyServer::Options());
  } catch (const std::exception& exception) {  // says what to install when it is missing
    std::fprintf(stderr, "kq_bench_xmpp_e2e: %s\n", exception.what());
    return 1;
  }
  kq::KQVisitorConfig config = kq::KQVisitorConfig::shared();
  config.xmppHost = "127.0.0.1";
  config.xmppPort = prosody->port();
  config.caFile = prosody->caFile();
  kq::KQVisitorConfig::setShared(config);
  int status = 1;
  try {
    status = kq::bench::runWithRatios(argc, argv);
  } catch (const std::exception& exception) {
    std::fprintf(stderr, "kq_bench_xmpp_e2e: %s\n", exception.what());
  }
  prosody.reset();
  return status;
}
