#pragma once

#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kq::xmpp {

/// What an XMPPStream's public methods read and write from any thread: the settings a
/// connection reads as it goes, and the state the stream reports. The stream keeps it in a
/// Guarded; its parts change the state on the stream's queue. Internal to the library.
struct XMPPStreamSettings {
  std::string hostName;
  std::uint16_t hostPort = 5222;
  std::optional<XMPPJID> myJID;
  XMPPStreamStartTLSPolicy policy = XMPPStreamStartTLSPolicy::Preferred;
  bool backgrounding = false;
  XMPPStream::Seconds negotiationTimeout = XMPPStream::kDefaultNegotiationTimeout;
  XMPPStream::Seconds keepAliveInterval = XMPPStream::kDefaultKeepAliveInterval;
  XMPPStream::Seconds keepAliveTimeout = XMPPStream::kDefaultKeepAliveTimeout;
  XMPPStream::Seconds acknowledgementTimeout = XMPPStream::kDefaultAcknowledgementTimeout;
  XMPPStream::Seconds resumptionTimeout = XMPPStream::kDefaultResumptionTimeout;

  XMPPStreamState state = XMPPStreamState::Disconnected;
  bool secure = false;
  bool authenticated = false;
  bool authenticating = false;
  std::vector<std::string> mechanisms;  // the SASL mechanisms the server offered
};

}  // namespace kq::xmpp
