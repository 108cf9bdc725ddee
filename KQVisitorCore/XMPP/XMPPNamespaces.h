#pragma once

#include <string_view>

// Namespaces of the XMPP core and the extensions the library speaks.
namespace kq::xmpp {

inline constexpr std::string_view kXMPPClientNamespace = "jabber:client";
inline constexpr std::string_view kXMPPStreamNamespace = "http://etherx.jabber.org/streams";
inline constexpr std::string_view kXMPPTLSNamespace = "urn:ietf:params:xml:ns:xmpp-tls";
inline constexpr std::string_view kXMPPSASLNamespace = "urn:ietf:params:xml:ns:xmpp-sasl";
inline constexpr std::string_view kXMPPBindNamespace = "urn:ietf:params:xml:ns:xmpp-bind";
inline constexpr std::string_view kXMPPSessionNamespace = "urn:ietf:params:xml:ns:xmpp-session";
inline constexpr std::string_view kXMPPStanzasNamespace = "urn:ietf:params:xml:ns:xmpp-stanzas";
inline constexpr std::string_view kXMPPStreamsErrorNamespace =
    "urn:ietf:params:xml:ns:xmpp-streams";
inline constexpr std::string_view kXMPPStreamManagementNamespace = "urn:xmpp:sm:3";
inline constexpr std::string_view kXMPPPingNamespace = "urn:xmpp:ping";
inline constexpr std::string_view kXMPPRosterNamespace = "jabber:iq:roster";
inline constexpr std::string_view kXMPPDiscoInfoNamespace = "http://jabber.org/protocol/disco#info";
inline constexpr std::string_view kXMPPCapsNamespace = "http://jabber.org/protocol/caps";
inline constexpr std::string_view kXMPPMUCNamespace = "http://jabber.org/protocol/muc";
inline constexpr std::string_view kXMPPMUCUserNamespace = "http://jabber.org/protocol/muc#user";
inline constexpr std::string_view kXMPPMUCOwnerNamespace = "http://jabber.org/protocol/muc#owner";
inline constexpr std::string_view kXMPPDataFormsNamespace = "jabber:x:data";
inline constexpr std::string_view kXMPPChatStatesNamespace =
    "http://jabber.org/protocol/chatstates";
inline constexpr std::string_view kXMPPvCardTempNamespace = "vcard-temp";
inline constexpr std::string_view kXMPPvCardAvatarNamespace = "vcard-temp:x:update";
inline constexpr std::string_view kXMPPMAMNamespace = "urn:xmpp:mam:2";
inline constexpr std::string_view kXMPPRSMNamespace = "http://jabber.org/protocol/rsm";
inline constexpr std::string_view kXMPPForwardNamespace = "urn:xmpp:forward:0";
inline constexpr std::string_view kXMPPDelayNamespace = "urn:xmpp:delay";
inline constexpr std::string_view kXMPPStanzaIdNamespace = "urn:xmpp:sid:0";

}  // namespace kq::xmpp
