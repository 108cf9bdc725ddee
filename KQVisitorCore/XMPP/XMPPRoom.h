#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPIQ.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPModule.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq {
template <class T>
class Guarded;
}  // namespace kq

namespace kq::xmpp {

template <class Delegate>
class XMPPDelegateList;

class XMPPRoomDelegate;
class XMPPRoomMemoryStorage;

/// One multi-user-chat room (XEP-0045) on a stream: joining and leaving, the owner's
/// configuration and destruction, invitations, and the room's messages.
///
/// The public methods may be called from any thread once the room is activated on a stream;
/// they send at once. The room's own handling of presences and messages runs on the stream's
/// queue; its delegates are called on their queues. Work handed to the room runs on the
/// dispatch queue given at construction (the main queue for the product's rooms), else on the
/// stream's queue.
class KQ_EXPORT XMPPRoom : public XMPPModule {
 public:
  /// The error condition of the answer the room reports when the server never answered an
  /// owner request (configuration, destruction) in time or the connection ended first.
  static constexpr std::string_view kNoAnswerCondition = "remote-server-timeout";

  /// True for that answer of the room's own, false for any answer the server sent.
  static bool isNoAnswer(const XMPPIQ& answer);

  /// A room `roomJID` (`room@service`; a resource is dropped) whose traffic is recorded in
  /// `storage`.
  XMPPRoom(std::shared_ptr<XMPPRoomMemoryStorage> storage, const XMPPJID& roomJID,
           std::shared_ptr<DispatchQueue> dispatchQueue = nullptr);
  ~XMPPRoom() override;

  /// The room's bare address, `room@service`.
  [[nodiscard]] const XMPPJID& roomJID() const { return roomJID_; }
  /// The storage given at construction, shared with whoever else holds it.
  [[nodiscard]] const std::shared_ptr<XMPPRoomMemoryStorage>& xmppRoomStorage() const {
    return storage_;
  }
  /// The nickname of the last join; nullopt before any.
  [[nodiscard]] std::optional<std::string> myNickname() const;
  /// `room@service/nickname`; nullopt before any join.
  [[nodiscard]] std::optional<XMPPJID> myRoomJID() const;
  /// True between the server's acceptance of our join and our leaving.
  [[nodiscard]] bool isJoined() const;

  /// Joins with `nickname`: a presence to `room@service/nickname` carrying the muc element, and
  /// inside it `history` (a `<history/>` element) when given: without it the server sends its
  /// default history. `password` for rooms that ask for one.
  void joinRoomUsingNickname(const std::string& nickname, const std::optional<XMPPElement>& history,
                             const std::optional<std::string>& password = std::nullopt);
  /// Leaves: an unavailable presence to `room@service/nickname`.
  void leaveRoom();
  /// Submits the owner's configuration: the fields of `roomConfigForm` (a jabber:x:data form)
  /// or, with nullopt, an empty form, which keeps every default of the server and unlocks a
  /// new room. did-configure or did-not-configure follows.
  void configureRoomUsingOptions(const std::optional<XMPPElement>& roomConfigForm);
  /// Mediated invitation of `jid`, with `message` as the reason when given and not empty.
  void inviteUser(const XMPPJID& jid, const std::optional<std::string>& message);
  /// Asks the server to destroy the room (owner only); did-destroy or did-fail-to-destroy.
  void destroyRoom();
  /// Sends `message` to the room as a group-chat message.
  void sendMessage(const XMPPMessage& message);

  /// Adds `delegate`, held weakly and called on `queue`.
  void addDelegate(const std::shared_ptr<XMPPRoomDelegate>& delegate,
                   std::shared_ptr<DispatchQueue> queue);
  /// Removes `delegate`; calls already posted for it are dropped.
  void removeDelegate(const XMPPRoomDelegate* delegate);

 protected:
  void streamDidDisconnect(const std::optional<KQError>& error) override;
  void streamDidReceivePresence(const XMPPPresence& presence) override;
  void streamDidReceiveMessage(const XMPPMessage& message) override;
  void streamDidSendElement(const XMPPElement& element) override;

 private:
  void notify(std::function<void(XMPPRoomDelegate&, XMPPRoom&)> call);
  void sendOwnerIQ(const XMPPElement& query, bool destroying);

  const std::shared_ptr<XMPPRoomMemoryStorage> storage_;
  const XMPPJID roomJID_;
  // The nickname and whether the room has us, under the room's lock; defined in XMPPRoom.cpp.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
  std::unique_ptr<XMPPDelegateList<XMPPRoomDelegate>> delegates_;
};

}  // namespace kq::xmpp
