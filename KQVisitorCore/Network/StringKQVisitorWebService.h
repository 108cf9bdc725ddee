#pragma once

#include <KQVisitorCore/Platform/Export.h>

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace kq {

/// Builders of the SOAP 1.2 envelopes of the management service, offered to the host
/// application (the web service uses formatRequest for its own calls).
///
/// An envelope is one line with nothing between its pieces: the XML declaration, the envelope
/// and body start tags (declaring xsi, xsd and the SOAP 1.2 envelope namespace, in that order),
/// the operation's element with the service namespace as its default namespace, one child
/// "<key>value</key>" per parameter in order, and the closing tags. Values are written as their
/// text and are not XML-escaped: "&" or "<" in a value makes the envelope malformed.
class KQ_EXPORT StringKQVisitorWebService {
 public:
  StringKQVisitorWebService() = delete;

  /// The envelope with the prefix "soap12", in the namespace KQVisitorConfig::shared()
  /// .soapNamespace (the compiled-in namespace when the settings cannot be loaded).
  static std::string formatRequest(const std::string& operation,
                                   const nlohmann::ordered_json& withParameters);
  /// The same with the prefix "soap" (bound to the same SOAP 1.2 namespace).
  static std::string formatRequestV2(const std::string& operation,
                                     const nlohmann::ordered_json& withParameters);

  /// The "soap12" envelope in the service namespace `serviceNamespace`.
  static std::string formatRequest(const std::string& operation,
                                   const nlohmann::ordered_json& withParameters,
                                   const std::string& serviceNamespace);
  /// The "soap" envelope in the service namespace `serviceNamespace`.
  static std::string formatRequestV2(const std::string& operation,
                                     const nlohmann::ordered_json& withParameters,
                                     const std::string& serviceNamespace);
};

}  // namespace kq
