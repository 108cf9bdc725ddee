#pragma once

#include <string_view>

// Namespaces of the XMPP core and the extensions the library speaks.
namespace kq::xmpp {

/// Stanzas of a client stream (RFC 6120).
inline constexpr std::string_view kXMPPClientNamespace = "jabber:client";
/// The stream's own elements: `<stream:stream/>`, `<stream:features/>`, `<stream:error/>`.
inline constexpr std::string_view kXMPPStreamNamespace = "http://etherx.jabber.org/streams";
/// STARTTLS (RFC 6120).
inline constexpr std::string_view kXMPPTLSNamespace = "urn:ietf:params:xml:ns:xmpp-tls";
/// SASL authentication (RFC 6120).
inline constexpr std::string_view kXMPPSASLNamespace = "urn:ietf:params:xml:ns:xmpp-sasl";
/// Resource binding (RFC 6120).
inline constexpr std::string_view kXMPPBindNamespace = "urn:ietf:params:xml:ns:xmpp-bind";
/// Session establishment (RFC 3921), which some servers still offer.
inline constexpr std::string_view kXMPPSessionNamespace = "urn:ietf:params:xml:ns:xmpp-session";
/// Conditions of stanza errors (RFC 6120).
inline constexpr std::string_view kXMPPStanzasNamespace = "urn:ietf:params:xml:ns:xmpp-stanzas";
/// Conditions of stream errors (RFC 6120).
inline constexpr std::string_view kXMPPStreamsErrorNamespace =
    "urn:ietf:params:xml:ns:xmpp-streams";
/// Stream management (XEP-0198).
inline constexpr std::string_view kXMPPStreamManagementNamespace = "urn:xmpp:sm:3";
/// XMPP ping (XEP-0199), the stream's keep-alive.
inline constexpr std::string_view kXMPPPingNamespace = "urn:xmpp:ping";
/// The roster (RFC 6121).
inline constexpr std::string_view kXMPPRosterNamespace = "jabber:iq:roster";
/// Service discovery of features (XEP-0030).
inline constexpr std::string_view kXMPPDiscoInfoNamespace = "http://jabber.org/protocol/disco#info";
/// Entity capabilities (XEP-0115).
inline constexpr std::string_view kXMPPCapsNamespace = "http://jabber.org/protocol/caps";
/// Multi-user chat (XEP-0045): joining a room.
inline constexpr std::string_view kXMPPMUCNamespace = "http://jabber.org/protocol/muc";
/// Multi-user chat (XEP-0045): occupants' status and invitations.
inline constexpr std::string_view kXMPPMUCUserNamespace = "http://jabber.org/protocol/muc#user";
/// Multi-user chat (XEP-0045): the owner's configuration and destruction.
inline constexpr std::string_view kXMPPMUCOwnerNamespace = "http://jabber.org/protocol/muc#owner";
/// Data forms (XEP-0004).
inline constexpr std::string_view kXMPPDataFormsNamespace = "jabber:x:data";
/// Chat states (XEP-0085).
inline constexpr std::string_view kXMPPChatStatesNamespace =
    "http://jabber.org/protocol/chatstates";
/// vCards (XEP-0054).
inline constexpr std::string_view kXMPPvCardTempNamespace = "vcard-temp";
/// vCard-based avatars (XEP-0153).
inline constexpr std::string_view kXMPPvCardAvatarNamespace = "vcard-temp:x:update";
/// Message archive management (XEP-0313).
inline constexpr std::string_view kXMPPMAMNamespace = "urn:xmpp:mam:2";
/// Result set management, the archive's paging (XEP-0059).
inline constexpr std::string_view kXMPPRSMNamespace = "http://jabber.org/protocol/rsm";
/// Forwarded stanzas (XEP-0297), which wrap archived messages.
inline constexpr std::string_view kXMPPForwardNamespace = "urn:xmpp:forward:0";
/// Delayed delivery stamps (XEP-0203).
inline constexpr std::string_view kXMPPDelayNamespace = "urn:xmpp:delay";
/// Unique and stable stanza ids (XEP-0359).
inline constexpr std::string_view kXMPPStanzaIdNamespace = "urn:xmpp:sid:0";

}  // namespace kq::xmpp
