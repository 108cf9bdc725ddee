#pragma once

#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/DateJSON.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/HTTPRequest.h>
#include <KQVisitorCore/Platform/HTTPResponse.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/Platform/Timer.h>

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq {

template <class T>
class Guarded;

class HTTPSession;

/// The one object through which the library talks HTTP to the chat service, and which knows
/// the visitor of the session (currentUser): JSON service calls, the SOAP management service,
/// file uploads, and the visitor's login and logout.
///
/// Parameters are JSON objects whose insertion order is the order in which they are written
/// (query strings, SOAP elements). A value is written as its text: strings as they are, numbers
/// in decimal, booleans as 1 or 0, null as "<null>"; a kq::Date becomes the text of
/// Date::description() (see DateJSON.h), in queries and JSON bodies alike.
///
/// Threads: unless a declaration says otherwise, callbacks run on the HTTP session's thread
/// (the shared session's "delegate queue"), never on the main queue: callers that touch their
/// own state hop to the main queue themselves. Nothing is called back while a lock is held.
class KQ_EXPORT KQVisitorWebService {
 public:
  /// JSON frame. `operation` is always null; it stands where the platform passed its
  /// operation object.
  using Success = std::function<void(std::nullptr_t operation, nlohmann::ordered_json result)>;
  /// JSON frame: `operation` is null as above; `error` is the transport's or the library's.
  /// Runs where requestDataWithParameters() says: the HTTP session's thread, or the calling
  /// thread for the failures it makes at once.
  using Failure = std::function<void(std::nullptr_t operation, KQError error)>;
  /// SOAP frame: the response head (nullopt when none arrived) and the body (likewise).
  using SOAPSuccess =
      std::function<void(std::optional<HTTPResponse> response, std::optional<std::string> data)>;
  /// SOAP frame: the response head (nullopt when none arrived) and the error.
  using SOAPFailure = std::function<void(std::optional<HTTPResponse> response, KQError error)>;
  /// SOAP operations: whether the call completed, and a status (6 done, 7 refused, 3 failed).
  using ResultBlock = std::function<void(bool ok, long status)>;
  /// Upload: the link of the stored file, on the HTTP session's thread.
  using UploadSuccess = std::function<void(std::string link)>;
  /// Upload: what went wrong, in words; on the HTTP session's thread, or at once on the calling
  /// thread for a file over 6 MB or settings that cannot be loaded.
  using UploadFailure = std::function<void(std::string message)>;
  /// Upload: bytes of the body sent so far and the body's size, on the HTTP session's thread.
  using UploadProgress =
      std::function<void(std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend)>;

  /// Paths appended to the configured origins (KQVisitorConfig). This one: the JSON service
  /// over XMPP, after KQVisitorConfig::jsonServiceProductionOrigin.
  static constexpr std::string_view kProductionServicePath =
      "/VisitorServiceXMPPSSL/ChatService.svc/";
  /// The JSON service of HTTP-polling clients, after KQVisitorConfig::jsonServiceBetaOrigin.
  static constexpr std::string_view kBetaServicePath = "/VisitorService_Mobile/ChatService.svc/";
  /// The SOAP management service, after KQVisitorConfig::soapServiceOrigin.
  static constexpr std::string_view kManagementServicePath =
      "/ManagementService/ManagementService.asmx";
  /// The upload service, after KQVisitorConfig::uploadServiceOrigin.
  static constexpr std::string_view kUploadServicePath =
      "/FileUploader/api/FileUploader/FileTransfer3_5_OP";

  /// The failure of a JSON request made while the internet is not reachable.
  static constexpr std::string_view kNoInternetMessage = "Request failed due to internet problem";
  /// The failure of an upload over 6 MB.
  static constexpr std::string_view kFileTooLargeMessage =
      "File can't be shared, because it exceeds the maximum file-size(6 MB)";
  /// Largest upload accepted, in megabytes of 1048576 bytes.
  static constexpr double kMaximumUploadMegabytes = 6.0;

  /// What a service object talks through. The shared instance uses the defaults; tests build
  /// their own service with a session, a network check or time-outs of their own.
  struct Dependencies {
    /// Null: HTTPSession::sharedSession(), taken at the first request.
    std::shared_ptr<HTTPSession> session;
    /// Asked after each JSON request has started. Empty: the XMPP client's isInternetAvaliable.
    std::function<bool()> isInternetAvaliable;
    /// Time-out of JSON and SOAP requests.
    std::chrono::milliseconds requestTimeout{30000};
    /// Time-out of uploads (the platform's default).
    std::chrono::milliseconds uploadTimeout = HTTPRequest::kDefaultTimeoutInterval;
  };

  /// A service with the default dependencies (what sharedInstance() uses).
  KQVisitorWebService();
  /// A service that talks through `dependencies` (tests, or a host with a session of its own).
  explicit KQVisitorWebService(Dependencies dependencies);
  KQVisitorWebService(const KQVisitorWebService&) = delete;
  KQVisitorWebService& operator=(const KQVisitorWebService&) = delete;
  ~KQVisitorWebService();

  /// The process-wide service, created on first use (thread-safe). It lives until the process
  /// ends.
  static KQVisitorWebService& sharedInstance();

  /// True when the visitor chats over HTTP polling instead of XMPP: JSON requests then go to
  /// the beta service, and login does not connect XMPP. Read once per request. Default false.
  [[nodiscard]] bool isHTTPClient() const { return isHTTPClient_.load(); }
  /// Sets isHTTPClient(); requests already started keep the service they went to.
  void setIsHTTPClient(bool isHTTPClient) { isHTTPClient_ = isHTTPClient; }

  /// The visitor of the session; null until a visitor logs in. Kept by logout.
  [[nodiscard]] std::shared_ptr<KQVisitorUser> currentUser() const;
  /// Sets currentUser(); the service shares ownership of the user.
  void setCurrentUser(std::shared_ptr<KQVisitorUser> currentUser);

  /// A timer the host application may keep here; logout stops and clears it.
  [[nodiscard]] std::shared_ptr<Timer> timer() const;
  /// Keeps `timer` (shared with the caller) in place of the one kept before, which is released,
  /// not stopped.
  void setTimer(std::shared_ptr<Timer> timer);

  /// A flag kept for the host application; the library neither sets nor reads it.
  [[nodiscard]] bool isOperatorServiceActive() const { return isOperatorServiceActive_.load(); }
  /// Sets isOperatorServiceActive().
  void setIsOperatorServiceActive(bool active) { isOperatorServiceActive_ = active; }
  /// A flag kept for the host application; the library neither sets nor reads it.
  [[nodiscard]] bool isQAServiceActive() const { return isQAServiceActive_.load(); }
  /// Sets isQAServiceActive().
  void setIsQAServiceActive(bool active) { isQAServiceActive_ = active; }

  // --- Login ---------------------------------------------------------------------------------

  /// Keeps `user` as currentUser and, unless isHTTPClient, connects it to the XMPP server
  /// through KQVisitorXMPPClient::instance().connectUser.
  void loginClientUser(std::shared_ptr<KQVisitorUser> user);

  /// Stops and clears the timer, then signs out of XMPP (KQVisitorXMPPClient::signout).
  /// currentUser stays.
  void logout();

  // --- JSON service --------------------------------------------------------------------------

  /// The JSON service's base URL for isHTTPClient (origin and path, ending in "/"). Throws
  /// KQVisitorConfig::Error when the settings cannot be loaded.
  [[nodiscard]] std::string jsonServiceBaseURL() const;

  /// "?" followed by "key=value&" for each parameter in order, values as their text, nothing
  /// escaped; the last "&" stays. Anything but a non-empty object gives "?".
  [[nodiscard]] static std::string urlBuilder(const nlohmann::ordered_json& parameters);

  /// Calls operation `serviceName` of the JSON service.
  ///
  /// "GET" (exactly) sends the parameters as a query (urlBuilder, then the whole URL escaped
  /// by stringByAddingPercentEscapes); any other method is sent as written with the parameters
  /// as a pretty-printed JSON body. "Content-Type: text/json" goes with both. Time-out: 30 s
  /// without data moving.
  ///
  /// Every answer, whatever its HTTP status, goes to `success` decoded by
  /// resultFromResponseData; a transport failure goes to `failure` with the HTTPSession error.
  /// Both run on the HTTP session's thread.
  ///
  /// After the request has started, the internet is checked; when it is not reachable,
  /// `failure` runs at once, on the calling thread, before this returns, with domain
  /// kNoInternetMessage, code 400 and userInfo {"status": 3}. The request is not cancelled:
  /// its own outcome is reported later as well, so a caller hears twice.
  ///
  /// Settings that cannot be loaded fail at once on the calling thread (domain
  /// "KQVisitorConfig", code 1, the reason under "NSLocalizedDescription"). Empty callbacks
  /// are allowed.
  void requestDataWithParameters(const nlohmann::ordered_json& parameters,
                                 const std::string& method, const std::string& serviceName,
                                 const Success& success, const Failure& failure);

  /// An answer of the JSON service as success receives it: the body (invalid UTF-8 replaced)
  /// with every backslash removed, then each "\"{" made "{" and each "}\"" made "}" (which
  /// unwraps objects the service sends serialised inside strings), parsed as JSON. An answer
  /// that is not a JSON object or array (plain text, a bare string, an empty body) becomes
  /// {"response": the cleaned text without double quotes}.
  [[nodiscard]] static nlohmann::ordered_json resultFromResponseData(std::string_view data);

  // --- SOAP management service ---------------------------------------------------------------

  /// The SOAP 1.2 envelope of `operation` (see StringKQVisitorWebService::formatRequest).
  [[nodiscard]] std::string formatRequest(const std::string& operation,
                                          const nlohmann::ordered_json& withParameters) const;

  /// POSTs the envelope of `operation` to the URL `serviceName` with "SOAPAction: soapAction"
  /// and "Content-Type: text/xml"; time-out 30 s. `success` runs on the HTTP session's thread
  /// whatever happened: with the response and body, or with two nullopts after a transport
  /// failure. `failure` is kept for the interface and never called.
  void requestData(const std::string& operation, const nlohmann::ordered_json& withParameters,
                   const std::string& soapAction, const std::string& serviceName,
                   SOAPSuccess success, const SOAPFailure& failure);

  /// "SendOfflineEmail" with the caller's parameters: block(true, 6) when the service answers
  /// with a 2xx status, block(true, 7) otherwise (another status, no answer, or settings that
  /// cannot be loaded).
  void sendofflineContactToServer(const nlohmann::ordered_json& parameters,
                                  const ResultBlock& block);

  /// "GetAllLanguages" with the caller's parameters: block(true, 6) once the call has ended,
  /// however it ended; the answer is not read.
  void getLanguagesList(const nlohmann::ordered_json& parameters, const ResultBlock& block);

  // --- File upload ---------------------------------------------------------------------------

  /// Uploads parameters["fileData"] (a binary value or a string of bytes; anything else counts
  /// as empty) as a multipart form part named "file" with filename parameters["fileName"]
  /// (its text; "(null)" when absent), to the upload service. Time-out: 60 s without data
  /// moving.
  ///
  /// Over 6 MB (more than 6291456 bytes): `failure` with kFileTooLargeMessage at once, on the
  /// calling thread; nothing is sent. Otherwise, on the HTTP session's thread: an answer whose
  /// text contains "http" (case-sensitive) goes to `success` without its double quotes (and is
  /// logged as "FileUrl: <text>"); any other answer goes to `failure` without its double
  /// quotes, vertical bars and full stops (logged as "FileUrlError: <text>"). After a
  /// transport failure (or when the settings cannot be loaded), `failure` receives the error's
  /// description, unchanged. `progress` (may be empty) reports the body's upload on the
  /// session's thread, before the outcome.
  void uploadFile(const nlohmann::ordered_json& parameters, UploadSuccess success,
                  UploadFailure failure, UploadProgress progress = {});

  /// "Boundary-" followed by a new random UUID in upper case (36 characters).
  [[nodiscard]] static std::string generateBoundaryString();

 private:
  [[nodiscard]] std::shared_ptr<HTTPSession> session() const;
  [[nodiscard]] bool internetAvailable() const;

  const Dependencies dependencies_;
  std::atomic<bool> isHTTPClient_{false};
  std::atomic<bool> isOperatorServiceActive_{false};
  std::atomic<bool> isQAServiceActive_{false};
  // The current user and the timer, private to the .cpp file, under one lock.
  struct State;
  const std::unique_ptr<Guarded<State>> state_;
};

}  // namespace kq
