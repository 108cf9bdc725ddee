#pragma once

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPTLSSettings.h>
#include <KQVisitorCore/XMPP/detail/XMPPTransport.h>

#include <asio/ip/tcp.hpp>

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace asio::ssl {
class context;
}  // namespace asio::ssl

namespace kq::xmpp {

class XMPPParser;
class XMPPQueue;

/// The bytes of one TCP connection to the server: resolving and connecting, the transport
/// (plain, then TLS), reading and parsing, writing, and shutting the socket. It knows nothing of
/// the XMPP negotiation: its owner (the stream) tells it when to start a new parser or TLS, and
/// hears of what it reads and of its end through Owner. Internal to the library.
///
/// Used on the stream's queue (or by a thread holding a turn of it). Every asynchronous
/// operation holds the connection and its owner; its handler takes a turn of the queue and does
/// nothing once the owner no longer calls the connection its current one.
class XMPPStreamConnection : public std::enable_shared_from_this<XMPPStreamConnection> {
 public:
  /// The connection's side of the stream. Called on the stream's queue.
  class Owner {
   public:
    virtual ~Owner() = default;
    /// Whether `connection` is still the stream's; the handlers of one it has closed stop.
    [[nodiscard]] virtual bool isCurrent(const XMPPStreamConnection& connection) const = 0;
    /// TCP is connected: the owner opens its XML stream. Reading starts when this returns.
    virtual void connectionDidConnectSocket() = 0;
    /// Bytes from the server are about to be parsed.
    virtual void connectionDidReceive() = 0;
    virtual void connectionDidReceiveElement(const XMPPElement& element) = 0;
    /// The chunk that agreed to TLS has been parsed: the owner finds the TLS settings and calls
    /// startTLS(), unless it closes.
    virtual void connectionWillSecure() = 0;
    /// The TLS handshake succeeded (and what was held back has been written): the owner opens
    /// its XML stream again. Reading goes on when this returns.
    virtual void connectionDidSecure() = 0;
    /// The connection has ended, with `error` or (nullopt) as asked: the owner closes it.
    virtual void connectionDidEnd(const std::optional<KQError>& error) = 0;
  };

  /// A connection to `host`:`port` for `owner` (held weakly here, strongly by each operation
  /// under way) on `queue`, the stream's. Nothing happens until connect().
  XMPPStreamConnection(std::shared_ptr<XMPPQueue> queue, const std::shared_ptr<Owner>& owner,
                       std::string host, std::uint16_t port);
  ~XMPPStreamConnection();
  XMPPStreamConnection(const XMPPStreamConnection&) = delete;
  XMPPStreamConnection& operator=(const XMPPStreamConnection&) = delete;

  /// Resolves the host and connects; a failure ends the connection with kErrorSocket.
  void connect();

  /// Reads the server's next XML stream with a new parser: now, or (`afterChunk`, from inside
  /// the parser's callback) once the chunk being parsed is done.
  void restartParser(bool afterChunk);
  /// Stops parsing the chunk being parsed and starts TLS after it (from inside the parser's
  /// callback): nothing the server sent after agreeing is read in the clear. Writes are held
  /// back from now until the handshake is done.
  void secureAfterChunk();
  /// Runs the TLS handshake with `settings`' peer name check. `context` is built on first use
  /// and kept by the caller across connections.
  void startTLS(const XMPPTLSSettings& settings, std::shared_ptr<asio::ssl::context>& context);

  /// Hands `text` to the transport, which sends at once what the socket takes; held back while
  /// the socket is not connected or TLS is being set up. A failure ends the connection from a
  /// task of its own, so the caller may go on using it.
  void write(std::string_view text);
  /// Writes `text` last: the connection ends, without an error, once it has been sent.
  void closeAfterWriting(std::string_view text);
  /// Whether writes are held back: there is no stream to end politely.
  [[nodiscard]] bool holdsWrites() const { return !transport_ || securing_; }
  /// Whether closeAfterWriting() was called.
  [[nodiscard]] bool isClosing() const { return closeAfterWriting_; }

  /// Marks the connection as ended by the user: its end is reported without an error.
  void setToldToDisconnect() { toldToDisconnect_ = true; }
  [[nodiscard]] bool wasToldToDisconnect() const { return toldToDisconnect_; }

  /// Whether the server ended its XML stream (</stream:stream>), which ends its session too.
  [[nodiscard]] bool serverEndedStream() const { return serverEndedStream_; }

  /// The resource is bound: the server's packets need no quick acknowledgement any more.
  void stopQuickAcks() { quickAcks_ = false; }

  /// Cancels what is under way and closes the socket; the parser reads nothing more (this may
  /// run inside its callback).
  void shutdown();

 private:
  using Next = void (XMPPStreamConnection::*)(const asio::error_code&, std::size_t);

  void onResolved(const asio::ip::tcp::resolver::results_type& endpoints);
  void onTCPConnected();
  void read();
  void receive(Next next);
  void readReceived(const asio::error_code& error, std::size_t length);
  void readDecrypted();
  void endReading(const XMPPTransport::Result& result);
  bool onRead(std::size_t length);
  void ackQuicklyWhileNegotiating();
  void waitToWrite();
  void closeLater(std::optional<KQError> error);
  void continueHandshake();
  void handshakeReceived(const asio::error_code& error, std::size_t length);
  [[nodiscard]] long ioErrorCode() const;

  const std::shared_ptr<XMPPQueue> queue_;
  Owner& owner_;                          // valid whenever the connection runs: see ownerLife_
  const std::weak_ptr<Owner> ownerLife_;  // what each operation holds while under way
  const std::string host_;
  const std::uint16_t port_;

  asio::ip::tcp::resolver resolver_;
  asio::ip::tcp::socket socket_;
  std::unique_ptr<XMPPTransport> transport_;  // once connected
  std::array<char, 16384> readBuffer_{};
  std::unique_ptr<XMPPParser> parser_;

  bool restartParserAfterChunk_ = false;
  bool secureAfterChunk_ = false;
  bool securing_ = false;         // from the server's agreement to the end of the handshake
  std::deque<std::string> held_;  // written while connecting or securing: sent after that
  bool waitingToWrite_ = false;   // the transport keeps bytes until the socket takes them
  bool closeAfterWriting_ = false;
  bool toldToDisconnect_ = false;
  bool serverEndedStream_ = false;
  bool quickAcks_ = true;
};

}  // namespace kq::xmpp
