#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kq::xmpp {
namespace {

constexpr const char* kHeader =
    "<?xml version='1.0'?><stream:stream xmlns='jabber:client' "
    "xmlns:stream='http://etherx.jabber.org/streams' id='s1' version='1.0'>";

// Collects what a stream parser reports.
struct Collected {
  std::vector<std::pair<std::string, std::string>> root;
  std::vector<std::string> elements;
  bool ended = false;
  std::optional<KQError> error;

  XMPPParser::Callbacks callbacks() {
    return {.didReadRoot = [this](const auto& attributes) { root = attributes; },
            .didReadElement =
                [this](const XMPPElement& element) { elements.push_back(element.XMLString()); },
            .didEnd = [this] { ended = true; },
            .didFail = [this](const KQError& failure) { error = failure; }};
  }
};

TEST(XMPPParserTest, StanzasFedByteByByteComeOutWhole) {
  const std::string input =
      std::string(kHeader) +
      "<stream:features><mechanisms xmlns='urn:ietf:params:xml:ns:xmpp-sasl'>"
      "<mechanism>ANONYMOUS</mechanism></mechanisms></stream:features>  "
      "<message from='room@conference.localhost/op' user_id='7 &amp; 8'><body>caf\xC3\xA9 "
      "&lt;3<![CDATA[ \xF0\x9F\x98\x80<]]></body></message>\n</stream:stream>";
  Collected collected;
  XMPPParser parser(XMPPParser::Mode::Stream, collected.callbacks());
  for (const char c : input) {
    parser.parseData(&c, 1);
  }
  EXPECT_FALSE(collected.error);
  ASSERT_EQ(collected.root.size(), 2U);
  EXPECT_EQ(collected.root[0], (std::pair<std::string, std::string>("id", "s1")));
  ASSERT_EQ(collected.elements.size(), 2U);
  // Each element declares again the stream namespaces it uses.
  EXPECT_EQ(collected.elements[0],
            "<stream:features xmlns:stream=\"http://etherx.jabber.org/streams\"><mechanisms "
            "xmlns=\"urn:ietf:params:xml:ns:xmpp-sasl\"><mechanism>ANONYMOUS</mechanism>"
            "</mechanisms></stream:features>");
  EXPECT_EQ(collected.elements[1],
            "<message xmlns=\"jabber:client\" from=\"room@conference.localhost/op\" "
            "user_id=\"7 &amp; 8\"><body>caf\xC3\xA9 &lt;3 \xF0\x9F\x98\x80&lt;</body>"
            "</message>");
  EXPECT_TRUE(collected.ended);
}

TEST(XMPPParserTest, BadStreamsFailOnceAndReportNothingAfterwards) {
  // Inputs that do not start a document or a stream of their own follow the stream header.
  const std::pair<std::string, long> cases[] = {
      {"<message><body>x</mesage>", XMPPParser::kErrorMalformed},
      {"<message a='1' a='2'/>", XMPPParser::kErrorMalformed},
      {"<?xml version='1.0'?><!DOCTYPE stream [<!ENTITY lol 'lol'>]>" + std::string(kHeader + 21),
       XMPPParser::kErrorDeclarationRefused},
      {"<message>&lol;</message>", XMPPParser::kErrorMalformed},
      {"<html><body/></html>", XMPPParser::kErrorNotAStream},
      // Overlong and surrogate forms of UTF-8, which libxml2 alone lets through in CDATA.
      {"<message><body><![CDATA[<\xC1\xA9>]]></body></message>", XMPPParser::kErrorMalformed},
      {"<message><body><![CDATA[\xE0\x81\xA9]]></body></message>", XMPPParser::kErrorMalformed},
      {"<message><body><![CDATA[\xF0\x80\x81\xA9]]></body></message>", XMPPParser::kErrorMalformed},
      {"<message><body><![CDATA[\xED\xA0\x80]]></body></message>", XMPPParser::kErrorMalformed},
  };
  for (const auto& [body, code] : cases) {
    const std::string input =
        body.starts_with("<?xml") || body.starts_with("<html") ? body : kHeader + body;
    SCOPED_TRACE(input);
    Collected collected;
    XMPPParser parser(XMPPParser::Mode::Stream, collected.callbacks());
    parser.parseData(input.data(), input.size());
    const std::string more = "<message><body>after</body></message>";
    parser.parseData(more.data(), more.size());
    ASSERT_TRUE(collected.error);
    EXPECT_EQ(collected.error->code, code);
    EXPECT_TRUE(parser.hasFailed());
    EXPECT_TRUE(collected.elements.empty());
  }
}

// Text over the cap is refused in the stream's tests. An attribute that never ends is buffered by
// libxml2 rather than reported, and the cap holds for it too.
TEST(XMPPParserTest, TheOneMebibyteCapIsPerElement) {
  Collected collected;
  XMPPParser parser(XMPPParser::Mode::Stream, collected.callbacks());
  parser.parseData(kHeader, std::char_traits<char>::length(kHeader));
  const std::string stanza = "<presence>" + std::string(1000, ' ') + "</presence> ";
  for (int i = 0; i < 1500; ++i) {
    parser.parseData(stanza.data(), stanza.size());
  }
  EXPECT_FALSE(collected.error);
  EXPECT_EQ(collected.elements.size(), 1500U);

  const std::string start = "<message a='";
  parser.parseData(start.data(), start.size());
  const std::string piece(std::size_t{64} * 1024, 'b');
  for (int i = 0; i < 20 && !collected.error; ++i) {
    parser.parseData(piece.data(), piece.size());
  }
  ASSERT_TRUE(collected.error);
  EXPECT_EQ(collected.error->code, XMPPParser::kErrorTooLarge);
}

TEST(XMPPParserTest, StopIgnoresTheRestOfTheInput) {
  Collected collected;
  XMPPParser* self = nullptr;
  auto callbacks = collected.callbacks();
  callbacks.didReadElement = [&](const XMPPElement& element) {
    collected.elements.push_back(element.name());
    self->stop();
  };
  XMPPParser parser(XMPPParser::Mode::Stream, callbacks);
  self = &parser;
  const std::string input = std::string(kHeader) + "<proceed/><message/>";
  parser.parseData(input.data(), input.size());
  EXPECT_EQ(collected.elements, std::vector<std::string>{"proceed"});
  EXPECT_FALSE(collected.error);
}

}  // namespace
}  // namespace kq::xmpp
