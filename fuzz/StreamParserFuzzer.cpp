// Feeds arbitrary bytes to the stream parser, once whole and once cut into pieces: the parser
// must not crash, must report the same elements and the same outcome however the input is cut,
// and every element it reports must be written back as XML that reads the same. An input with
// several faults (a document type declaration holding invalid UTF-8) may be refused for either
// of them, depending on which one the parser reaches first: only whether it was refused counts.

#include "fuzz/FuzzCheck.h"

#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/detail/XMPPParser.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using kq::xmpp::XMPPElement;
using kq::xmpp::XMPPParser;

struct Outcome {
  std::string root;                   // the stream header's attributes
  std::vector<std::string> elements;  // each element as written back
  bool ended = false;
  bool failed = false;
};

Outcome parse(const char* data, std::size_t size, std::size_t piece) {
  Outcome outcome;
  XMPPParser parser(
      XMPPParser::Mode::Stream,
      {[&](const std::vector<std::pair<std::string, std::string>>& attributes) {
         for (const auto& [name, value] : attributes) {
           outcome.root += name + '=' + value + '\n';
         }
       },
       [&](const XMPPElement& element) { outcome.elements.push_back(element.XMLString()); },
       [&] { outcome.ended = true; },
       [&](const kq::KQError& /*error*/) { outcome.failed = true; }});
  for (std::size_t offset = 0; offset < size; offset += piece) {
    parser.parseData(data + offset, std::min(piece, size - offset));
  }
  parser.finish();
  return outcome;
}

void expectReadsTheSame(const std::string& written) {
  kq::KQError error;
  const auto again = XMPPElement::elementWithXMLString(written, &error);
  if (!again) {
    kq::fuzz::fail("an element the stream parser reported was written as XML that does not parse",
                   written, error.description());
  }
  kq::fuzz::expectEqual("an element written twice differs", written, again->XMLString());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  // The first byte sets the size of the pieces; the rest is the stream.
  const std::size_t piece = 1 + bytes[0] % 16;
  const char* data = reinterpret_cast<const char*>(bytes + 1);
  --size;

  const Outcome whole = parse(data, size, size == 0 ? 1 : size);
  const Outcome pieces = parse(data, size, piece);
  kq::fuzz::expectEqual("the stream header depends on how the input was cut", whole.root,
                        pieces.root);
  if (whole.elements != pieces.elements || whole.ended != pieces.ended ||
      whole.failed != pieces.failed) {
    kq::fuzz::fail("the elements or the outcome depend on how the input was cut",
                   std::to_string(whole.elements.size()) + " elements, ended " +
                       std::to_string(whole.ended) + ", failed " + std::to_string(whole.failed),
                   std::to_string(pieces.elements.size()) + " elements, ended " +
                       std::to_string(pieces.ended) + ", failed " + std::to_string(pieces.failed));
  }
  for (const auto& written : whole.elements) {
    expectReadsTheSame(written);
  }
  return 0;
}
