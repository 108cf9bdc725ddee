#pragma once

#include <string>

namespace kq {

/// How a room carries its chat: the one road a line takes between a KQVisitorRoom and the
/// network, whichever the transport. The room owns it; a transport reaches its room only
/// through a weak reference, and hands the lines it receives to the room, which stores them and
/// announces them to its update callbacks on the main queue. Internal to the library.
class KQVisitorRoomTransport {
 public:
  virtual ~KQVisitorRoomTransport() = default;

  /// Starts receiving the chat's lines; `nickname` names the visitor where the transport shows
  /// one.
  virtual void join(const std::string& nickname) = 0;
  /// Stops receiving them. Nothing tells the service that the chat has ended.
  virtual void leave() = 0;
  /// Sends the visitor's line; false when it cannot go now (nothing is sent then).
  virtual bool send(const std::string& text) = 0;
};

}  // namespace kq
