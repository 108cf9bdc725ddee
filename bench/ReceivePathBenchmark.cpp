// The receive path of a chat room, beside the libraries underneath and a peer library:
//   ReceivePath  chat packets read from the stream, then the seven field reads a room makes per
//                message (body, visitor id, manager id, visitor name, time stamp, error check,
//                ignore check); the reference is libstrophe's whole receive path over loopback
//                (its stream parser is not public), reading the same fields through its API.
//   Parse        chat packets read from the stream only; the reference is libxml2's own SAX2
//                tree builder, each stanza freed once it is complete.
// Each iteration is a batch of kBatch packets fed in 4 KiB pieces, as a socket delivers them.

#include "bench/ChatPackets.h"
#include "bench/RatioReporter.h"

#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPMessage.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <arpa/inet.h>
#include <libxml/SAX2.h>
#include <libxml/parser.h>
#include <netinet/in.h>
#include <strophe.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

namespace {

using kq::xmpp::XMPPElement;
using kq::xmpp::XMPPMessage;
using kq::xmpp::XMPPParser;

constexpr int kBatch = 1000;
constexpr std::size_t kPiece = 4096;

const std::string& batch() {
  static const std::string packets = kq::bench::chatPackets(kBatch);
  return packets;
}

template <class Feed>
void feedInPieces(const std::string& input, Feed&& feed) {
  for (std::size_t offset = 0; offset < input.size(); offset += kPiece) {
    feed(input.data() + offset, std::min(kPiece, input.size() - offset));
  }
}

// What a room reads from each chat packet it receives.
std::size_t readTheSevenFields(const XMPPMessage& message) {
  std::size_t seen = kq::kqChatMessage(message).size();
  seen += kq::visitorId(message).value_or("").size();
  seen += kq::managerId(message).value_or("").size();
  seen += kq::visitorName(message).value_or("").size();
  seen += kq::getTimeStamp(message) ? 1 : 0;
  seen += kq::isErrorMessage(message) ? 1 : 0;
  seen += kq::ignoreMessage(message) ? 1 : 0;
  return seen;
}

void runOurs(benchmark::State& state, bool readFields) {
  std::size_t elements = 0;
  std::size_t seen = 0;
  XMPPParser parser(XMPPParser::Mode::Stream, {.didReadRoot = nullptr,
                                               .didReadElement =
                                                   [&](const XMPPElement& element) {
                                                     ++elements;
                                                     if (readFields) {
                                                       seen +=
                                                           readTheSevenFields(XMPPMessage(element));
                                                     }
                                                   },
                                               .didEnd = nullptr,
                                               .didFail = nullptr});
  parser.parseData(kq::bench::kStreamHeader, std::strlen(kq::bench::kStreamHeader));
  for (auto _ : state) {
    feedInPieces(batch(),
                 [&](const char* data, std::size_t size) { parser.parseData(data, size); });
  }
  benchmark::DoNotOptimize(seen);
  if (elements != static_cast<std::size_t>(state.iterations()) * kBatch) {
    state.SkipWithError("the parser lost stanzas");
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}

void ReceivePath_ours(benchmark::State& state) {
  runOurs(state, true);
}
BENCHMARK(ReceivePath_ours)->Name("ReceivePath/ours")->UseRealTime();

void Parse_ours(benchmark::State& state) {
  runOurs(state, false);
}
BENCHMARK(Parse_ours)->Name("Parse/ours")->UseRealTime();

// --- libxml2's own tree builder ----------------------------------------------------------

struct TreeBuilder {
  int depth = 0;
  std::size_t elements = 0;
};

void libxml2Start(void* context, const xmlChar* localname, const xmlChar* prefix,
                  const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                  int attributeCount, int defaultedCount, const xmlChar** attributes) {
  auto* parser = static_cast<xmlParserCtxtPtr>(context);
  ++static_cast<TreeBuilder*>(parser->_private)->depth;
  xmlSAX2StartElementNs(context, localname, prefix, uri, namespaceCount, namespaces, attributeCount,
                        defaultedCount, attributes);
}

void libxml2End(void* context, const xmlChar* localname, const xmlChar* prefix,
                const xmlChar* uri) {
  auto* parser = static_cast<xmlParserCtxtPtr>(context);
  auto* builder = static_cast<TreeBuilder*>(parser->_private);
  xmlSAX2EndElementNs(context, localname, prefix, uri);
  if (--builder->depth == 1) {
    // A whole stanza: hand it over (here: count it) and free it, as a stream client must.
    xmlNodePtr stanza = parser->node != nullptr ? parser->node->last : nullptr;
    if (stanza != nullptr) {
      xmlUnlinkNode(stanza);
      xmlFreeNode(stanza);
      ++builder->elements;
    }
  }
}

void Parse_libxml2Tree(benchmark::State& state) {
  xmlSAXHandler sax{};
  xmlSAXVersion(&sax, 2);
  sax.startElementNs = libxml2Start;
  sax.endElementNs = libxml2End;
  TreeBuilder builder;
  xmlParserCtxtPtr parser = xmlCreatePushParserCtxt(&sax, nullptr, nullptr, 0, nullptr);
  parser->_private = &builder;
  xmlCtxtUseOptions(parser, XML_PARSE_NONET | XML_PARSE_NOENT);
  xmlParseChunk(parser, kq::bench::kStreamHeader,
                static_cast<int>(std::strlen(kq::bench::kStreamHeader)), 0);
  for (auto _ : state) {
    feedInPieces(batch(), [&](const char* data, std::size_t size) {
      xmlParseChunk(parser, data, static_cast<int>(size), 0);
    });
  }
  if (builder.elements != static_cast<std::size_t>(state.iterations()) * kBatch) {
    state.SkipWithError("libxml2 lost stanzas");
  }
  xmlFreeDoc(parser->myDoc);
  xmlFreeParserCtxt(parser);
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(Parse_libxml2Tree)->Name("Parse/libxml2-sax2-tree")->UseRealTime();

// --- libstrophe over loopback -------------------------------------------------------------

// A server that opens a stream and then writes batches of chat packets when asked.
class PacketFeeder {
 public:
  PacketFeeder() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), length) != 0 ||
        listen(listener_, 1) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
      throw std::runtime_error("cannot listen on loopback");
    }
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~PacketFeeder() {
    {
      std::scoped_lock lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    shutdown(listener_, SHUT_RDWR);  // ends an accept that no client came to
    thread_.join();
    close(listener_);
  }
  PacketFeeder(const PacketFeeder&) = delete;
  PacketFeeder& operator=(const PacketFeeder&) = delete;

  [[nodiscard]] unsigned short port() const { return port_; }

  void sendBatch() {
    {
      std::scoped_lock lock(mutex_);
      ++batches_;
    }
    wake_.notify_one();
  }

 private:
  void serve() {
    const int client = accept(listener_, nullptr, nullptr);
    if (client < 0) {
      return;
    }
    char buffer[4096];
    std::string opening;
    while (opening.find("<stream:stream") == std::string::npos ||
           opening.find('>', opening.find("<stream:stream")) == std::string::npos) {
      const ssize_t got = recv(client, buffer, sizeof buffer, 0);
      if (got <= 0) {
        close(client);
        return;
      }
      opening.append(buffer, static_cast<std::size_t>(got));
    }
    writeAll(client, kq::bench::kStreamHeader);
    while (true) {
      std::unique_lock lock(mutex_);
      wake_.wait(lock, [this] { return stopping_ || batches_ > 0; });
      if (stopping_) {
        break;
      }
      --batches_;
      lock.unlock();
      writeAll(client, batch());
    }
    writeAll(client, "</stream:stream>");
    close(client);
  }

  static void writeAll(int socket, const std::string& data) {
    std::size_t sent = 0;
    while (sent < data.size()) {
      const ssize_t wrote = send(socket, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (wrote <= 0) {
        return;
      }
      sent += static_cast<std::size_t>(wrote);
    }
  }

  int listener_ = -1;
  unsigned short port_ = 0;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable wake_;
  int batches_ = 0;
  bool stopping_ = false;
};

struct StropheReader {
  xmpp_ctx_t* ctx = nullptr;
  bool connected = false;
  bool failed = false;
  std::size_t received = 0;
  std::size_t seen = 0;
};

std::string stropheText(xmpp_ctx_t* ctx, xmpp_stanza_t* element) {
  if (element == nullptr) {
    return "Other Than Body Packet";
  }
  char* text = xmpp_stanza_get_text(element);
  std::string value = text != nullptr ? text : "";
  xmpp_free(ctx, text);
  return value;
}

std::string stropheField(xmpp_stanza_t* stanza, const char* name) {
  // Invitations carry the fields in the reason instead: look for one first, as the room does.
  if (xmpp_stanza_get_child_by_ns(stanza, "http://jabber.org/protocol/muc#user") != nullptr) {
    return {};
  }
  const char* value = xmpp_stanza_get_attribute(stanza, name);
  return value != nullptr ? value : "";
}

int stropheOnMessage(xmpp_conn_t* /*conn*/, xmpp_stanza_t* stanza, void* userdata) {
  auto* reader = static_cast<StropheReader*>(userdata);
  const std::string body = stropheText(reader->ctx, xmpp_stanza_get_child_by_name(stanza, "body"));
  reader->seen += body.size();
  reader->seen += stropheField(stanza, "user_id").size();
  reader->seen += stropheField(stanza, "manager_id").size();
  reader->seen += stropheField(stanza, "visitor_name").size();
  if (const char* stamp = xmpp_stanza_get_attribute(stanza, "time_stamp")) {
    std::tm fields{};
    fields.tm_isdst = -1;
    if (strptime(stamp, "%Y-%m-%d %H:%M:%S", &fields) != nullptr) {
      reader->seen += mktime(&fields) != -1 ? 1 : 0;
    }
  }
  reader->seen += xmpp_stanza_get_child_by_name(stanza, "error") != nullptr ? 1 : 0;
  const std::string again = stropheText(reader->ctx, xmpp_stanza_get_child_by_name(stanza, "body"));
  reader->seen += again == "[DND]" || again == "Other Than Body Packet" ? 1 : 0;
  ++reader->received;
  return 1;
}

void stropheOnConnection(xmpp_conn_t* conn, xmpp_conn_event_t event, int /*error*/,
                         xmpp_stream_error_t* /*streamError*/, void* userdata) {
  auto* reader = static_cast<StropheReader*>(userdata);
  if (event == XMPP_CONN_RAW_CONNECT) {
    xmpp_conn_open_stream_default(conn);
  } else if (event == XMPP_CONN_CONNECT) {
    reader->connected = true;
  } else {
    reader->failed = true;
  }
}

void ReceivePath_libstrophe(benchmark::State& state) {
  xmpp_initialize();
  PacketFeeder feeder;
  StropheReader reader;
  reader.ctx = xmpp_ctx_new(nullptr, nullptr);
  xmpp_conn_t* conn = xmpp_conn_new(reader.ctx);
  xmpp_conn_set_flags(conn, XMPP_CONN_FLAG_DISABLE_TLS);
  xmpp_conn_set_jid(conn, "visitor@localhost");
  xmpp_handler_add(conn, stropheOnMessage, nullptr, "message", nullptr, &reader);
  if (xmpp_connect_raw(conn, "127.0.0.1", feeder.port(), stropheOnConnection, &reader) != 0) {
    reader.failed = true;
  }
  while (!reader.connected && !reader.failed) {
    xmpp_run_once(reader.ctx, 10);
  }
  for (auto _ : state) {
    if (reader.failed) {
      state.SkipWithError("libstrophe could not connect or lost the connection");
      break;
    }
    const std::size_t target = reader.received + kBatch;
    feeder.sendBatch();
    while (reader.received < target && !reader.failed) {
      xmpp_run_once(reader.ctx, 10);
    }
  }
  benchmark::DoNotOptimize(reader.seen);
  xmpp_conn_release(conn);
  xmpp_ctx_free(reader.ctx);
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(ReceivePath_libstrophe)->Name("ReceivePath/libstrophe")->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  return kq::bench::runWithRatios(argc, argv);
}
