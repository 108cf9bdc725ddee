#pragma once

#include <cstdint>

namespace kq {

/// What kind of chat line a KQVisitorMessage is, decided from the chat packet's sender and
/// manager ids.
enum KQVisitorMessageType : std::int64_t {
  /// Written by the visitor (the manager id reads as 0); the sender is the current user.
  KQVisitorMessageTypeVisitor = 1,
  /// From a sender whose id reads as a negative number; such messages are never stored.
  KQVisitorMessageTypeIgnored = 2,
  /// From another participant of the room; the sender is that occupant (or none).
  KQVisitorMessageTypeParticipant = 3,
  /// From the operator, and every line the library makes itself (greeting, closing line,
  /// messages received over HTTP).
  KQVisitorMessageTypeOperator = 4,
};

}  // namespace kq
