#pragma once

#include <nlohmann/json_fwd.hpp>

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kqsandbox {

/// One operator of a website.
struct SandboxOperator {
  std::string id;        ///< digits; also the XMPP account <id>@localhost
  std::string name;      ///< what visitors see
  std::string language;  ///< "en" or "ar": the visitors it takes
  std::string greeting;  ///< the first words of each chat
  bool online = true;
  std::string password = "secret";  ///< of the XMPP account
};

/// One website of the service.
struct SandboxWebsite {
  std::string id;            ///< digits, not "0"
  std::string domain;        ///< the English domain name
  std::string domainArabic;  ///< the Arabic domain name; may be empty
  std::string timeZone = "0";
  std::string languageId = "1";
  bool branding = true;
  bool blocked = false;
  std::vector<SandboxOperator> operators;
};

/// What the sandbox is seeded with: the websites, and how operators answer visitors.
///
/// The JSON form (every key but "websites" optional):
///
///     {"websites": [{"id": "12", "domain": "shop.example", "domainArabic": "shop.example.ar",
///                    "timeZone": "3", "languageId": "1", "branding": true, "blocked": false,
///                    "operators": [{"id": "42", "name": "Omar", "language": "en",
///                                   "greeting": "Hello, I am Omar", "online": true,
///                                   "password": "secret"}]}],
///      "replies": ["Let me look", "It ships today"], "endAfter": 2}
///
/// An operator answers the visitor's n-th message with replies[n-1] (the last reply again when
/// they run out) and ends the chat after its answer to message `endAfter` (0: never).
struct SandboxFixture {
  /// A fixture that cannot be used; the message names the field, e.g.
  /// "websites[0].operators[1].id: must be a string of digits".
  class Error : public std::invalid_argument {
   public:
    using std::invalid_argument::invalid_argument;
  };

  std::vector<SandboxWebsite> websites;
  std::vector<std::string> replies;
  int endAfter = 0;

  /// Parses and checks a fixture; throws Error.
  static SandboxFixture fromJSON(std::string_view text);
  /// The built-in fixture: shop.example (id 12) with an English and an Arabic operator, a
  /// blocked website and one with nobody online.
  static SandboxFixture builtIn();
};

}  // namespace kqsandbox
