#pragma once

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Rooms/detail/KQVisitorRoomTransport.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace kq {

class KQVisitorMessage;
class KQVisitorRoom;
template <class T>
class Guarded;

/// A chat carried by the JSON chat service: a line is inserted with "InsertChatMessage", the
/// operator's lines are fetched with "GetChatMessagesAlt" every httpPollInterval seconds on the
/// main queue, and "ET" ends the chat. Each line that arrives, the visitor's included, is stored
/// in the room on the web service's thread and announced to the room's update callbacks on the
/// main queue, as over XMPP.
///
/// The three service operations are also the sites manager's HTTP operations, which run them on
/// the session's current room.
class KQVisitorHTTPRoomTransport final
    : public KQVisitorRoomTransport,
      public std::enable_shared_from_this<KQVisitorHTTPRoomTransport> {
 public:
  /// An error, or the line made (either may be null).
  using MessageCallback =
      std::function<void(std::optional<KQError> error, std::shared_ptr<KQVisitorMessage> message)>;

  explicit KQVisitorHTTPRoomTransport(std::weak_ptr<KQVisitorRoom> owner);
  ~KQVisitorHTTPRoomTransport() override;

  /// Polls for the host; replaces a poller the chat's start began, keeps one the host began.
  void join(const std::string& nickname) override;
  /// Stops every poll timer: the last at once, any earlier one at its next tick, which then
  /// sends nothing.
  void leave() override;
  /// Inserts the line with the room's own chat id; always true, the outcome is the refresh.
  bool send(const std::string& text) override;

  /// Polls as join() does, for the chat's start (`byLibrary`): nothing when the room polls.
  void startPolling(bool byLibrary);
  /// Fetches the next line, unless a fetch is unanswered: two fetches from the same cursor
  /// would hand the same line out twice.
  void poll();

  /// The service operations on `room`'s chat (null: no room, sent with null ids). `callback`
  /// runs on the web service's thread, after the line made is stored in `room`.
  static void insertMessage(const std::shared_ptr<KQVisitorRoom>& room, const std::string& text,
                            MessageCallback callback);
  static void fetchMessage(const std::shared_ptr<KQVisitorRoom>& room, MessageCallback callback);
  static void endChat(const std::shared_ptr<KQVisitorRoom>& room, MessageCallback callback);

  /// The room's refresh: posts "KQVisitor_HTTP_Refresh" with the line when there is no error.
  static void refreshed(const std::optional<KQError>& error,
                        const std::shared_ptr<KQVisitorMessage>& line);

 private:
  struct State;
  const std::weak_ptr<KQVisitorRoom> owner_;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
