#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <optional>
#include <string>
#include <string_view>

namespace kq::xmpp {

/// A `<message/>` stanza. A handle like XMPPElement: copies share the stanza.
class KQ_EXPORT XMPPMessage : public XMPPElement {
 public:
  /// An empty `<message/>`.
  XMPPMessage();
  /// `<message type="..." to="..."/>`; an absent type or address writes no attribute.
  XMPPMessage(std::optional<std::string> type, const std::optional<XMPPJID>& to);
  /// The same stanza seen as a message (no check of the element's name).
  explicit XMPPMessage(const XMPPElement& element) : XMPPElement(element) {}

  /// The "type" attribute; nullopt when absent.
  [[nodiscard]] std::optional<std::string> type() const;
  /// The text of the `<body/>` child; nullopt when there is none.
  [[nodiscard]] std::optional<std::string> body() const;
  /// Appends a `<body/>` child with `text`.
  void addBody(std::string_view text);

  /// The type is "chat".
  [[nodiscard]] bool isChatMessage() const;
  /// The type is "groupchat".
  [[nodiscard]] bool isGroupChatMessage() const;
  /// The type is "groupchat" and the message has a `<body/>`.
  [[nodiscard]] bool isGroupChatMessageWithBody() const;
  /// True for type "error" or an `<error/>` child.
  [[nodiscard]] bool isErrorMessage() const;

  // Chat states (XEP-0085): each adds one state element; a message carries at most one.

  /// Adds the chat state `<active/>`, in place of any chat state already there.
  void addActiveChatState();
  /// Adds the chat state `<composing/>`, in place of any chat state already there.
  void addComposingChatState();
  /// Adds the chat state `<paused/>`, in place of any chat state already there.
  void addPausedChatState();
  /// Adds the chat state `<inactive/>`, in place of any chat state already there.
  void addInactiveChatState();
  /// Adds the chat state `<gone/>`, in place of any chat state already there.
  void addGoneChatState();
  /// The name of the chat-state element ("composing", ...); nullopt when there is none.
  [[nodiscard]] std::optional<std::string> chatState() const;

 private:
  void addChatState(std::string_view state);
};

}  // namespace kq::xmpp
