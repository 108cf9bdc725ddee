#include <KQVisitorCore/Network/StringKQVisitorWebService.h>

#include <KQVisitorCore/Network/detail/WebServiceText.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>

#include <nlohmann/json.hpp>

#include <string_view>

namespace kq {
namespace {

std::string envelope(std::string_view prefix, const std::string& operation,
                     const nlohmann::ordered_json& parameters,
                     const std::string& serviceNamespace) {
  std::string text = R"(<?xml version="1.0" encoding="UTF-8"?>)";
  text.append("<").append(prefix).append(":Envelope");
  text.append(" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\"");
  text.append(" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\"");
  text.append(" xmlns:").append(prefix).append("=\"http://www.w3.org/2003/05/soap-envelope\">");
  text.append("<").append(prefix).append(":Body>");
  text.append("<").append(operation).append(" xmlns=\"").append(serviceNamespace).append("\">");
  if (parameters.is_object()) {
    for (const auto& [key, value] : parameters.items()) {
      text.append("<").append(key).append(">");
      detail::appendParameter(text, value);
      text.append("</").append(key).append(">");
    }
  }
  text.append("</").append(operation).append(">");
  text.append("</").append(prefix).append(":Body></").append(prefix).append(":Envelope>");
  return text;
}

std::string configuredNamespace() {
  try {
    return KQVisitorConfig::shared().soapNamespace;
  } catch (const KQVisitorConfig::Error&) {
    return KQVisitorConfig().soapNamespace;  // the reason is in the log already
  }
}

}  // namespace

std::string StringKQVisitorWebService::formatRequest(const std::string& operation,
                                                     const nlohmann::ordered_json& withParameters) {
  return envelope("soap12", operation, withParameters, configuredNamespace());
}

std::string StringKQVisitorWebService::formatRequestV2(
    const std::string& operation, const nlohmann::ordered_json& withParameters) {
  return envelope("soap", operation, withParameters, configuredNamespace());
}

std::string StringKQVisitorWebService::formatRequest(const std::string& operation,
                                                     const nlohmann::ordered_json& withParameters,
                                                     const std::string& serviceNamespace) {
  return envelope("soap12", operation, withParameters, serviceNamespace);
}

std::string StringKQVisitorWebService::formatRequestV2(const std::string& operation,
                                                       const nlohmann::ordered_json& withParameters,
                                                       const std::string& serviceNamespace) {
  return envelope("soap", operation, withParameters, serviceNamespace);
}

}  // namespace kq
