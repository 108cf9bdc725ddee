// File upload: one multipart part, at most 6 MB, answered with the stored file's link.

#include <KQVisitorCore/Network/KQVisitorWebService.h>

#include <KQVisitorCore/Network/detail/WebServiceText.h>
#include <KQVisitorCore/Platform/HTTPSession.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>

#include <uuid/uuid.h>

namespace kq {
namespace {

constexpr double kBytesPerMegabyte = 1048576.0;

// The bytes of "fileData": a binary value or a string; anything else counts as empty.
std::string fileBytes(const nlohmann::ordered_json& parameters) {
  if (!parameters.is_object()) {
    return {};
  }
  const auto found = parameters.find("fileData");
  if (found == parameters.end()) {
    return {};
  }
  if (found->is_binary()) {
    const auto& bytes = found->get_binary();
    return std::string(bytes.begin(), bytes.end());
  }
  if (found->is_string()) {
    return found->get<std::string>();
  }
  return {};
}

std::string fileName(const nlohmann::ordered_json& parameters) {
  if (!parameters.is_object()) {
    return "(null)";
  }
  const auto found = parameters.find("fileName");
  return found == parameters.end() ? std::string("(null)") : detail::describeParameter(*found);
}

}  // namespace

std::string KQVisitorWebService::generateBoundaryString() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37] = {};
  uuid_unparse_upper(uuid, text);
  return std::string("Boundary-") + text;
}

void KQVisitorWebService::uploadFile(const nlohmann::ordered_json& parameters,
                                     UploadSuccess success, UploadFailure failure,
                                     UploadProgress progress) {
  std::string bytes = fileBytes(parameters);
  if (static_cast<double>(bytes.size()) / kBytesPerMegabyte > kMaximumUploadMegabytes) {
    if (failure) {
      failure(std::string(kFileTooLargeMessage));
    }
    return;
  }
  std::string url;
  try {
    url = KQVisitorConfig::sharedFor({"uploadServiceOrigin", "caFile"}).uploadServiceOrigin +
          std::string(kUploadServicePath);
  } catch (const KQVisitorConfig::Error& error) {
    if (failure) {
      failure(error.what());
    }
    return;
  }

  HTTPRequest request(url, dependencies_.uploadTimeout);
  request.httpMethod = "POST";
  const std::string boundary = generateBoundaryString();
  request.setValue("multipart/form-data; boundary=" + boundary, "Content-Type");

  std::string body;
  body.reserve(bytes.size() + 512);
  body.append("--").append(boundary).append("\r\n");
  body.append(R"(Content-Disposition: form-data; name="file"; filename=")")
      .append(fileName(parameters))
      .append("\"\r\n");
  body.append("Content-Type:").append("application/octet-stream").append("\r\n\r\n");
  body.append(bytes);
  bytes.clear();
  bytes.shrink_to_fit();
  body.append("\r\n");
  body.append("--").append(boundary).append("--\r\n");
  request.httpBody = std::move(body);

  session()->dataTaskWithRequest(
      std::move(request),
      [success = std::move(success), failure = std::move(failure)](
          const std::optional<std::string>& data, const std::optional<HTTPResponse>& /*response*/,
          const std::optional<KQError>& error) {
        if (!error) {
          std::string text = detail::decodeUTF8(data.value_or(std::string()));
          if (text.find("http") != std::string::npos) {
            log("FileUrl: ", text);
            if (success) {
              success(detail::removingCharacters(text, "\""));
            }
            return;
          }
          log("FileUrlError: ", text);
          if (failure) {
            // The service's error text comes quoted; its full stops go too, on purpose.
            failure(detail::removingCharacters(text, "\"|."));
          }
          return;
        }
        std::string message =
            describe(error->userInfo.value("NSLocalizedDescription", nlohmann::ordered_json()));
        log("FileUrlError: ", message);
        if (failure) {
          failure(std::move(message));
        }
      },
      std::move(progress));
}

}  // namespace kq
