#pragma once

// The chat packet the receive-path benchmarks read, as an operator's message arrives in a room.

#include <string>

namespace kq::bench {

inline constexpr const char* kStreamHeader =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' id='b' from='localhost' version='1.0'>";

inline constexpr const char* kChatPacket =
    "<message xml:lang='en' to='visitor@localhost/TellioiPhone' "
    "from='room1234@conference.localhost/Operator' type='groupchat' user_id='0' "
    "custom_packet='true' website_id='981' manager_id='42' chat_id='1234' "
    "visitor_name='Ann &amp; Bob' time_stamp='2026-11-15 00:05:52' id='a1b2c3'>"
    "<body>Hello, how can I help you today?</body>"
    "<occupant-id xmlns='urn:xmpp:occupant-id:0' id='x0x0'/></message>";

/// `count` packets back to back, as they arrive on a busy stream.
inline std::string chatPackets(int count) {
  std::string packets;
  for (int i = 0; i < count; ++i) {
    packets += kChatPacket;
  }
  return packets;
}

}  // namespace kq::bench
