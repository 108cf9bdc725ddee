#pragma once

#include <cstdint>
#include <memory>

namespace kq::test {

/// A TCP relay on 127.0.0.1 (a free port) in front of a server on 127.0.0.1:`targetPort`, on a
/// thread of its own, that breaks the network between the two on demand: it resets every
/// connection at once, as a NAT or a switch that forgets them does, or drops everything silently
/// for a while, as a cable pulled out does. Between faults it forwards bytes both ways as they
/// come; when one side of a connection closes, it closes the other.
///
/// Every member may be called from any thread. A call that changes the relay has taken effect
/// for every connection when it returns. The destructor closes every connection and stops the
/// relay's thread.
class FaultRelay {
 public:
  /// What went through the relay so far.
  struct Counts {
    int accepted = 0;  ///< connections accepted since the start
  };

  /// Starts listening. Throws std::runtime_error when it cannot.
  explicit FaultRelay(std::uint16_t targetPort);
  ~FaultRelay();
  FaultRelay(const FaultRelay&) = delete;
  FaultRelay& operator=(const FaultRelay&) = delete;

  /// Where clients connect instead of the target.
  [[nodiscard]] std::uint16_t port() const;

  /// Ends every open connection: the client's side with a TCP reset (its next read fails with
  /// ECONNRESET), the server's side with a normal close, which the server notices at once. Later
  /// connections go through as before.
  void reset();

  /// While `dropping`, no byte goes through in either direction, on any connection, and neither
  /// does a close: the relay stops reading, so what the peers send waits in the kernel's buffers
  /// (and once those are full, in the senders'), as lost packets wait to be sent again. New
  /// connections are still accepted (and connected to the target) but carry nothing. Ending the
  /// drop lets the held bytes through, in order, on every connection still open.
  void dropSilently(bool dropping);

  [[nodiscard]] Counts counts() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kq::test
