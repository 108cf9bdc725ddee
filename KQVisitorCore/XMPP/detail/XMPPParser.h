#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kq::xmpp {

/// Turns bytes into elements, incrementally: data may be fed in pieces of any size, cut
/// anywhere (in a tag, a multi-byte character, an entity).
///
/// In stream mode the input is an XMPP stream: the opening <stream:stream> tag is reported by
/// didReadRoot, each element directly inside it (a stanza, stream features, SASL and TLS
/// elements) by didReadElement as a tree of its own, and the closing tag by didEnd. The
/// namespaces the stream header declares are declared again on each element that uses them, so
/// an element read from the stream stands on its own (a <message> carries
/// xmlns="jabber:client").
///
/// In document mode the input is one element, reported by didReadElement.
///
/// Refused, each with didFail and nothing reported after it: malformed XML, a document type
/// declaration or any entity declaration, a reference to an undeclared entity, and an element
/// whose text exceeds kMaxElementSize bytes. Entities are substituted (an attribute written
/// "&amp;" reads "&"), and nothing is ever loaded from the network.
///
/// Callbacks run inside parseData(), on the caller's thread. Not thread-safe.
class KQ_EXPORT XMPPParser {
 public:
  enum class Mode { Stream, Document };

  struct Callbacks {
    /// The stream header's attributes, (qualified name, value) in document order.
    std::function<void(const std::vector<std::pair<std::string, std::string>>&)> didReadRoot;
    std::function<void(const XMPPElement&)> didReadElement;
    std::function<void()> didEnd;
    std::function<void(const KQError&)> didFail;
  };

  /// Error domain and codes of didFail.
  static constexpr const char* kErrorDomain = "XMPPParserErrorDomain";
  enum ErrorCode : long {
    kErrorMalformed = 1,
    kErrorTooLarge = 2,
    kErrorDeclarationRefused = 3,
    kErrorNotAStream = 4,
  };

  /// The most text one element (with its attributes and descendants) may hold: 1 MiB.
  static constexpr std::size_t kMaxElementSize = std::size_t{1} << 20;

  XMPPParser(Mode mode, Callbacks callbacks);
  ~XMPPParser();
  XMPPParser(const XMPPParser&) = delete;
  XMPPParser& operator=(const XMPPParser&) = delete;

  /// Parses the next piece of input. Does nothing once the parser has failed or was stopped.
  void parseData(const char* data, std::size_t length);
  /// Tells the parser that the input is complete (document mode: reports an unfinished element).
  void finish();
  /// Called from a callback: ignore the rest of the input (the caller restarts with a new parser).
  void stop();

  [[nodiscard]] bool hasFailed() const;

  /// Prepares libxml2 for use from several threads; runs once, later calls do nothing. Every
  /// parser and element calls it; a host need not. Unless the host has installed its own
  /// allocation functions in libxml2, it installs pass-through ones, which keeps libxml2 from
  /// freeing its process-wide state as the process exits while a stream may still use it.
  static void initialize();

  /// The parser's state; private to XMPPParser.cpp.
  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kq::xmpp
