#pragma once

#include "OperatorScript.h"
#include "SandboxStore.h"

#include <KQVisitorCore/XMPP/XMPPRoomDelegate.h>
#include <KQVisitorCore/XMPP/XMPPStreamDelegate.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace kq::xmpp {
class XMPPReconnect;
class XMPPRoom;
class XMPPStream;
}  // namespace kq::xmpp

namespace kqsandbox {

/// One operator at work on the sandbox's XMPP server: logged in as <id>@localhost with its
/// password, it takes each visitor's invitation, joins the chat's room, answers the visitor's
/// chat packets from the script (as the service's operators do: "manager_id", "user_id",
/// "visitor_name", "time_stamp") and ends the chat with "[destroy room]" when the script says.
/// What is said is kept in the store. While a person answers for the operator at the console,
/// the script stays quiet. After a lost connection (the sandbox restarts a server that
/// stops) it logs in again and goes back into its rooms, saying so in the log at each step.
/// Everything runs on the main queue.
class OperatorAgent : public kq::xmpp::XMPPStreamDelegate,
                      public kq::xmpp::XMPPRoomDelegate,
                      public std::enable_shared_from_this<OperatorAgent> {
 public:
  using Log = std::function<void(const std::string& line)>;

  OperatorAgent(SandboxOperator person, SandboxStore& store, OperatorScript script, Log log);
  ~OperatorAgent() override;
  OperatorAgent(const OperatorAgent&) = delete;
  OperatorAgent& operator=(const OperatorAgent&) = delete;

  [[nodiscard]] const SandboxOperator& person() const { return person_; }
  /// Connects to 127.0.0.1:`port`. Call on the main queue.
  void start(int port);
  /// Leaves the rooms and disconnects. Call on the main queue.
  void stop();
  /// Says `text` in the chat `chatId` when this operator is in its room; false otherwise.
  bool say(const std::string& chatId, const std::string& text);
  /// Ends chat `chatId` with the end notice when this operator is in its room; false otherwise.
  bool end(const std::string& chatId);
  /// Whether chat `chatId` is one of this operator's XMPP chats (it was invited to its room).
  [[nodiscard]] bool hasChat(const std::string& chatId) const;

  void xmppStreamDidConnect(kq::xmpp::XMPPStream& sender) override;
  void xmppStreamDidAuthenticate(kq::xmpp::XMPPStream& sender) override;
  void xmppStreamDidNotAuthenticate(kq::xmpp::XMPPStream& sender,
                                    const kq::xmpp::XMPPElement& error) override;
  void xmppStreamDidDisconnect(kq::xmpp::XMPPStream& sender,
                               const std::optional<kq::KQError>& error) override;
  void xmppStreamDidReceiveMessage(kq::xmpp::XMPPStream& sender,
                                   const kq::xmpp::XMPPMessage& message) override;
  void xmppRoomDidCreate(kq::xmpp::XMPPRoom& sender) override;
  void xmppRoomDidJoin(kq::xmpp::XMPPRoom& sender) override;
  void xmppRoomDidReceiveMessage(kq::xmpp::XMPPRoom& sender, const kq::xmpp::XMPPMessage& message,
                                 const kq::xmpp::XMPPJID& occupantJID) override;

 private:
  struct Chat {
    std::string id;
    std::string websiteId;
    std::shared_ptr<kq::xmpp::XMPPRoom> room;
    bool joined = false;
    bool everJoined = false;  // a join now is a return
  };
  // Where the connection to the server stands, for the log.
  enum class Link {
    Starting,  // connecting for the first time
    Online,
    Lost,     // lost; reconnecting
    Waiting,  // an attempt failed too; trying on
  };
  [[nodiscard]] std::string who() const;
  void join(Chat& chat, bool again);
  // The operator's line `text` into the chat's room.
  void send(const Chat& chat, const std::string& text);
  Chat* chatOfRoom(const kq::xmpp::XMPPRoom& room);
  Chat* joinedChat(const std::string& chatId);

  SandboxOperator person_;
  SandboxStore& store_;
  OperatorScript script_;
  Log log_;
  std::shared_ptr<kq::xmpp::XMPPStream> stream_;
  std::shared_ptr<kq::xmpp::XMPPReconnect> reconnect_;
  std::map<std::string, Chat> chats_;  // by room JID
  Link link_ = Link::Starting;
  bool wasOnline_ = false;
  bool stopping_ = false;
};

}  // namespace kqsandbox
