// The SOAP management service: envelopes, the request frame and its two operations.

#include <KQVisitorCore/Network/KQVisitorWebService.h>

#include <KQVisitorCore/Network/StringKQVisitorWebService.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>

namespace kq {
namespace {

// The endpoint and SOAP action of a management operation; nullopt (logged) when the settings
// cannot be loaded.
struct ManagementCall {
  std::string url;
  std::string soapAction;
};

std::optional<ManagementCall> managementCall(std::string_view operation) {
  try {
    const KQVisitorConfig config =
        KQVisitorConfig::sharedFor({"soapServiceOrigin", "soapNamespace", "caFile"});
    return ManagementCall{
        config.soapServiceOrigin + std::string(KQVisitorWebService::kManagementServicePath),
        config.soapNamespace + std::string(operation)};
  } catch (const KQVisitorConfig::Error& error) {
    log("KQVisitorWebService: ", operation, " not sent: ", error.what());
    return std::nullopt;
  }
}

}  // namespace

std::string KQVisitorWebService::formatRequest(const std::string& operation,
                                               const nlohmann::ordered_json& withParameters) const {
  return StringKQVisitorWebService::formatRequest(operation, withParameters);
}

void KQVisitorWebService::requestData(const std::string& operation,
                                      const nlohmann::ordered_json& withParameters,
                                      const std::string& soapAction, const std::string& serviceName,
                                      SOAPSuccess success, const SOAPFailure& /*failure*/) {
  HTTPRequest request(serviceName, dependencies_.requestTimeout);
  request.httpMethod = "POST";
  request.httpBody = formatRequest(operation, withParameters);
  request.setValue(soapAction, "SOAPAction");
  request.setValue("text/xml", "Content-Type");
  // Every outcome goes to success, a transport failure as (nullopt, nullopt): the callers
  // read the outcome from the response.
  session()->dataTaskWithRequest(
      std::move(request), [success = std::move(success)](std::optional<std::string> data,
                                                         std::optional<HTTPResponse> response,
                                                         const std::optional<KQError>& error) {
        if (!success) {
          return;
        }
        if (error) {
          success(std::nullopt, std::nullopt);
        } else {
          success(std::move(response), std::move(data));
        }
      });
}

void KQVisitorWebService::sendofflineContactToServer(const nlohmann::ordered_json& parameters,
                                                     const ResultBlock& block) {
  const auto call = managementCall("SendOfflineEmail");
  if (!call) {
    if (block) {
      block(true, 7);
    }
    return;
  }
  requestData(
      "SendOfflineEmail", parameters, call->soapAction, call->url,
      [block](const std::optional<HTTPResponse>& response, const std::optional<std::string>&) {
        const long status = response ? response->statusCode : 0;
        if (block) {
          block(true, status >= 200 && status < 300 ? 6 : 7);
        }
      },
      [block](const std::optional<HTTPResponse>&, const KQError&) {
        if (block) {
          block(false, 3);
        }
      });
}

void KQVisitorWebService::getLanguagesList(const nlohmann::ordered_json& parameters,
                                           const ResultBlock& block) {
  const auto call = managementCall("GetAllLanguages");
  if (!call) {
    if (block) {
      block(true, 6);
    }
    return;
  }
  requestData(
      "GetAllLanguages", parameters, call->soapAction, call->url,
      [block](const std::optional<HTTPResponse>&, const std::optional<std::string>&) {
        if (block) {
          block(true, 6);
        }
      },
      [block](const std::optional<HTTPResponse>&, const KQError&) {
        if (block) {
          block(false, 3);
        }
      });
}

}  // namespace kq
