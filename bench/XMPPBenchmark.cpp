// The chat packet's costs: reading each of its fields, building and writing one. Reading
// packets from the stream is measured beside its references in ReceivePathBenchmark.cpp.

#include "bench/ChatPackets.h"

#include <KQVisitorCore/Rooms/XMPPMessage+KQVisitor.h>
#include <KQVisitorCore/Rooms/XMPPRoom+KQVisitor.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/XMPPJID.h>

#include <benchmark/benchmark.h>

#include <string>

namespace {

using kq::xmpp::XMPPElement;
using kq::xmpp::XMPPMessage;

XMPPMessage packet() {
  return XMPPMessage(*XMPPElement::elementWithXMLString(
      std::string(kq::bench::kChatPacket).insert(9, "xmlns='jabber:client' ")));
}

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
