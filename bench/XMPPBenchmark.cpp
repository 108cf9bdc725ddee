// The chat packet's costs: reading one from the stream, reading its fields, building and
// writing one.

#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>
#include <KQVisitorCore/XMPP/XMPPParser.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

using kq::xmpp::XMPPElement;
using kq::xmpp::XMPPMessage;
using kq::xmpp::XMPPParser;

constexpr const char* kHeader =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' id='b' from='localhost' version='1.0'>";

constexpr const char* kPacket =
    "<message xml:lang='en' to='visitor@localhost/TellioiPhone' "
    "from='room1234@conference.localhost/Operator' type='groupchat' user_id='0' "
    "custom_packet='true' website_id='981' manager_id='42' chat_id='1234' "
    "visitor_name='Ann &amp; Bob' time_stamp='2026-11-15 00:05:52' id='a1b2c3'>"
    "<body>Hello, how can I help you today?</body>"
    "<occupant-id xmlns='urn:xmpp:occupant-id:0' id='x0x0'/></message>";

XMPPMessage packet() {
  return XMPPMessage(
      *XMPPElement::elementWithXMLString(std::string(kPacket).insert(9, "xmlns='jabber:client' ")));
}

void BM_ParseChatPacketFromStream(benchmark::State& state) {
  std::size_t elements = 0;
  XMPPParser parser(XMPPParser::Mode::Stream,
                    {.didReadRoot = nullptr,
                     .didReadElement = [&elements](const XMPPElement&) { ++elements; },
                     .didEnd = nullptr,
                     .didFail = nullptr});
  parser.parseData(kHeader, std::char_traits<char>::length(kHeader));
  const std::string input = kPacket;
  for (auto _ : state) {
    parser.parseData(input.data(), input.size());
  }
  if (elements != static_cast<std::size_t>(state.iterations())) {
    state.SkipWithError("the parser lost stanzas");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * input.size()));
}
BENCHMARK(BM_ParseChatPacketFromStream);

void BM_ReadChatId(benchmark::State& state) {
  const XMPPMessage message = packet();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::chatId(message));
  }
}
BENCHMARK(BM_ReadChatId);

void BM_ReadVisitorName(benchmark::State& state) {
  const XMPPMessage message = packet();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::visitorName(message));
  }
}
BENCHMARK(BM_ReadVisitorName);

void BM_ReadTimeStamp(benchmark::State& state) {
  const XMPPMessage message = packet();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::getTimeStamp(message));
  }
}
BENCHMARK(BM_ReadTimeStamp);

void BM_ReadChatMessage(benchmark::State& state) {
  const XMPPMessage message = packet();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kq::kqChatMessage(message));
  }
}
BENCHMARK(BM_ReadChatMessage);

void BM_BuildAndSerialiseChatPacket(benchmark::State& state) {
  const auto room = *kq::xmpp::XMPPJID::jidWithString("room1234@conference.localhost");
  for (auto _ : state) {
    const XMPPMessage message = kq::makeKQVisitorMessage(room, "Hello, how can I help you today?",
                                                         "0", "981", "0", "Ann & Bob", "1234");
    benchmark::DoNotOptimize(message.XMLString());
  }
}
BENCHMARK(BM_BuildAndSerialiseChatPacket);

}  // namespace

BENCHMARK_MAIN();
