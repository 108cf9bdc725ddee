#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/Date.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq {

class KQVisitorRoom;
/// What became of a line of the outbox, in the order a line goes through them.
enum KQOutboxLineFate : std::int64_t {
  KQOutboxLineSent = 0,       ///< handed to the connection (again, after a rejoin or a retry)
  KQOutboxLineDelivered = 1,  ///< the room gave it back, or the chat service stored it
  KQOutboxLineGivenUp = 2,    ///< not delivered in time, or refused by the chat service
};

/// The visitor's lines kept until they are in the chat: an alternative to
/// KQVisitorRoom::sendMessage() for a host that wants no line lost and none shown twice when
/// the network fails.
///
/// A line stays in the outbox, and in the standard user defaults (under "kqoutbox" and the chat
/// id), until it is delivered or given up, so it also survives a restart of the host's process:
/// an outbox made for the same chat id takes the lines back and sends them on.
///
/// Over XMPP each line's chat packet carries the line's id as its "id" attribute, which the room
/// gives back with the line (KQVisitorRoom::receivedStanza). A line is sent while the room is
/// joined, in the order written. When a resumed stream brings the session back, the stream
/// itself sends again what the server missed. When the room is lost and joined again, the
/// lines sent and not given back are held until the rejoin's catch-up has finished; those the
/// catch-up brought back are delivered, the others are sent again, in order, with the same id.
/// After a restart of the process, lines that had been sent are first looked for in the room's
/// archive from the first join on; a room that keeps no archive gets them again.
///
/// Over HTTP a line is inserted with "InsertChatMessage", one at a time, in order. A line that
/// fails with a transport error is sent again after 1 s, then 2, 4 and up to 16 s between
/// tries; a line the service refuses ("Can not insert message") is given up at once. A line
/// whose insert timed out after the service had stored it can be stored twice: the service
/// takes no id.
///
/// A line not delivered within giveUpAfter() of being written is given up and forgotten; if
/// its echo comes later, it is a message of the transcript like any other.
///
/// Threads: every call, and the fate listener, run on the main queue. The outbox takes the
/// room's catch-up listener (KQVisitorRoom::setCatchUpListener) until close().
///
/// Create outboxes with make(); close() it when the chat ends (the lines stay stored; a
/// chat that ended for good is emptied with forgetLines()).
class KQ_EXPORT KQVisitorOutbox : public xmpp::XMPPRoomDelegate,
                                  public std::enable_shared_from_this<KQVisitorOutbox> {
 public:
  /// One line of the visitor's.
  struct Line {
    std::string id;  ///< unique; the chat packet's "id" over XMPP
    /// What the visitor wrote, as given to send().
    std::string text;
    Date written;   ///< when send() took it
    int sends = 0;  ///< how many times it went out
  };
  /// Hears each fate of each line on the main queue; `error` is the service's error of a line
  /// given up over HTTP, nullopt otherwise.
  using FateListener = std::function<void(const Line& line, KQOutboxLineFate fate,
                                          const std::optional<KQError>& error)>;

  /// How long a line may wait for delivery unless setGiveUpAfter() says otherwise.
  static constexpr Clock::Duration kDefaultGiveUpAfter = std::chrono::minutes(5);

  /// An outbox for `room` (not owned beyond close()), which takes back the lines stored for
  /// the room's chat id and sends them once it can.
  static std::shared_ptr<KQVisitorOutbox> make(const std::shared_ptr<KQVisitorRoom>& room,
                                               FateListener listener);
  ~KQVisitorOutbox() override;
  KQVisitorOutbox(const KQVisitorOutbox&) = delete;
  KQVisitorOutbox& operator=(const KQVisitorOutbox&) = delete;

  /// Takes `text` (nothing for an empty one) and sends it when the room can take it; answers
  /// the line's id ("" for an empty text).
  std::string send(const std::string& text);
  /// The lines not delivered or given up yet, oldest first.
  [[nodiscard]] std::vector<Line> lines() const;
  /// How long a line may wait for delivery (kDefaultGiveUpAfter); applies to every line.
  void setGiveUpAfter(Clock::Duration giveUpAfter);
  /// How long a line may wait for delivery (kDefaultGiveUpAfter unless set).
  [[nodiscard]] Clock::Duration giveUpAfter() const;
  /// Stops sending and listening to the room; the lines stay stored for a later outbox.
  void close();
  /// Forgets the lines stored for chat `chatId` (when that chat has ended for good).
  static void forgetLines(const std::string& chatId);

  void xmppRoomDidJoin(xmpp::XMPPRoom& sender) override;
  void xmppRoomDidLeave(xmpp::XMPPRoom& sender) override;

 private:
  struct State;
  explicit KQVisitorOutbox(FateListener listener);
  void attach(const std::shared_ptr<KQVisitorRoom>& room);
  // The lines whose ids came back are delivered; those still out go again.
  void caughtUp(const std::vector<std::string>& ids);
  void lookInArchive(xmpp::XMPPRoom& room);
  void flush();
  void sendOverHTTP(const std::shared_ptr<KQVisitorRoom>& room);
  void httpAnswered(const std::string& id, const std::optional<KQError>& error);
  void delivered(const std::string& id);
  void giveUp(const std::string& id, const std::optional<KQError>& error);
  void scheduleGiveUp();
  void store() const;

  const std::unique_ptr<State> state_;
};

}  // namespace kq
