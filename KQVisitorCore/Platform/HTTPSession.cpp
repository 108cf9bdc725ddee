#include <KQVisitorCore/Platform/HTTPSession.h>

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/KQVisitorConfig.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/Reachability.h>
#include <KQVisitorCore/Platform/detail/OwnedThread.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <curl/curl.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <map>
#include <thread>
#include <vector>

namespace kq {
namespace {

using SteadyClock = std::chrono::steady_clock;

// An answer larger than this is refused rather than held in memory.
constexpr std::size_t kMaximumBodySize = std::size_t{256} * 1024 * 1024;
constexpr long kMaximumRedirects = 16;
constexpr long kConnectionCacheSize = 16;
// Easy handles kept for reuse once their transfer ends: making and freeing one per request
// costs about as much as the rest of the session's own work on a small call.
constexpr std::size_t kIdleHandleLimit = 16;

// --- Holders of the C handles ----------------------------------------------------------------

struct EasyDeleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
};
struct MultiDeleter {
  void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
};
struct ShareDeleter {
  void operator()(CURLSH* handle) const { curl_share_cleanup(handle); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct URLDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
struct StoreDeleter {
  void operator()(X509_STORE* store) const { X509_STORE_free(store); }
};
using EasyHandle = std::unique_ptr<CURL, EasyDeleter>;
using MultiHandle = std::unique_ptr<CURLM, MultiDeleter>;
using ShareHandle = std::unique_ptr<CURLSH, ShareDeleter>;
using HeaderList = std::unique_ptr<curl_slist, ListDeleter>;
using URLHandle = std::unique_ptr<CURLU, URLDeleter>;
using TrustStore = std::unique_ptr<X509_STORE, StoreDeleter>;

void initializeCurlOnce() {
  // curl_global_init is not thread-safe and must run once per process; it is never undone,
  // since completions may still run while the process exits.
  static std::once_flag once;
  std::call_once(once, [] {
    // OpenSSL, set up here on libcurl's behalf, would otherwise free its state from an exit
    // handler while a transfer may still run on the session's thread.
    OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
    if (const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT); code != CURLE_OK) {
      log("HTTPSession: libcurl could not be initialised: ", curl_easy_strerror(code));
    }
  });
}

KQError transportError(long code, const std::string& description, const std::string& url) {
  KQError error{std::string(HTTPSession::kErrorDomain), code, nlohmann::ordered_json::object()};
  error.userInfo["NSLocalizedDescription"] = description;
  error.userInfo["NSErrorFailingURLStringKey"] = url;
  return error;
}

bool isTokenCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool isToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

// Why the request cannot be put on the wire as it is, if it cannot.
std::optional<std::string> malformedRequestReason(const HTTPRequest& request) {
  if (!isToken(request.httpMethod)) {
    return "The HTTP method \"" + request.httpMethod + "\" is not a valid method name.";
  }
  for (const auto& [name, value] : request.allHTTPHeaderFields.fields()) {
    if (!isToken(name)) {
      return "The header field name \"" + name + "\" is not valid.";
    }
    if (value.find_first_of(std::string_view("\r\n\0", 3)) != std::string::npos) {
      return "The value of header field \"" + name + "\" holds a line break or a NUL byte.";
    }
  }
  return std::nullopt;
}

std::string_view trimmed(std::string_view text) {
  // A plain loop: find_first_not_of with a set searches the set once per character.
  const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!text.empty() && space(text.front())) {
    text.remove_prefix(1);
  }
  while (!text.empty() && space(text.back())) {
    text.remove_suffix(1);
  }
  return text;
}

template <class Function, class... Arguments>
void callNoThrow(const Function& function, Arguments... arguments) noexcept {
  // Runs inside libcurl's C frames, which an exception must not cross.
  function(arguments...);
}

// Whether a failed transfer failed because the machine has no usable network.
bool isOffline(CURL* easy, CURLcode result) {
  if (result == CURLE_COULDNT_CONNECT) {
    long osError = 0;
    curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osError);
    return osError == ENETUNREACH || osError == EHOSTUNREACH;
  }
  if (result == CURLE_COULDNT_RESOLVE_HOST) {
    return Reachability::reachabilityForInternetConnection()->currentReachabilityStatus() ==
           NetworkStatus::NotReachable;
  }
  return false;
}

KQError offlineError(const std::string& description, const std::string& url) {
  KQError error{std::string(HTTPSession::kURLErrorDomain),
                HTTPSession::kErrorNotConnectedToInternet, nlohmann::ordered_json::object()};
  error.userInfo["NSLocalizedDescription"] = "The Internet connection appears to be offline.";
  error.userInfo["NSErrorFailingURLStringKey"] = url;
  error.userInfo["NSUnderlyingError"] = description;
  return error;
}

}  // namespace

// --- One task ---------------------------------------------------------------------------------

namespace {

struct Transfer {
  HTTPSession::TaskIdentifier identifier = 0;
  HTTPRequest request;
  HTTPSession::Completion completion;
  HTTPSession::Progress progress;

  EasyHandle easy;
  URLHandle location;  // request.url, parsed
  HeaderList headers;
  std::string body;
  HTTPHeaderFields responseHeaders;
  char errorBuffer[CURL_ERROR_SIZE] = {};
  std::optional<KQError> abortError;  // set when we stop the transfer ourselves

  // Idle time is measured on Clock::shared(), read once per turn of the session's loop: the
  // callbacks below only note that bytes moved.
  Clock::TimePoint lastActivity;
  bool moved = false;
  curl_off_t lastTransferred = 0;
  curl_off_t lastReportedSent = -1;
  SteadyClock::time_point lastReport;
};

std::size_t receiveBody(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t length = size * count;
  if (transfer->body.size() + length > kMaximumBodySize) {
    transfer->abortError =
        transportError(CURLE_WRITE_ERROR,
                       "The answer is larger than " + std::to_string(kMaximumBodySize) + " bytes.",
                       transfer->request.url);
    return 0;
  }
  transfer->body.append(data, length);
  transfer->moved = true;
  return length;
}

std::size_t receiveHeader(char* data, std::size_t size, std::size_t count, void* user) {
  auto* transfer = static_cast<Transfer*>(user);
  const std::size_t length = size * count;
  const std::string_view line = trimmed(std::string_view(data, length));
  transfer->moved = true;
  if (line.starts_with("HTTP/")) {
    // A new status line: an interim answer or a redirect came before; keep the final head only.
    transfer->responseHeaders.clear();
  } else if (const auto colon = line.find(':'); colon != std::string_view::npos && colon > 0) {
    transfer->responseHeaders.addValue(std::string(trimmed(line.substr(colon + 1))),
                                       std::string(trimmed(line.substr(0, colon))));
  }
  return length;
}

int reportProgress(void* user, curl_off_t /*downloadTotal*/, curl_off_t downloaded,
                   curl_off_t uploadTotal, curl_off_t uploaded) {
  auto* transfer = static_cast<Transfer*>(user);
  const auto now = SteadyClock::now();
  if (downloaded + uploaded != transfer->lastTransferred) {
    transfer->lastTransferred = downloaded + uploaded;
    transfer->moved = true;
  }
  if (transfer->progress && uploadTotal > 0 && uploaded != transfer->lastReportedSent) {
    const bool finished = uploaded >= uploadTotal;
    if (finished || transfer->lastReportedSent < 0 ||
        now - transfer->lastReport >= HTTPSession::kProgressInterval) {
      transfer->lastReportedSent = uploaded;
      transfer->lastReport = now;
      callNoThrow(transfer->progress, static_cast<std::int64_t>(uploaded),
                  static_cast<std::int64_t>(uploadTotal));
    }
  }
  return 0;
}

}  // namespace

// --- The session ------------------------------------------------------------------------------

struct detail::HTTPSessionImpl {
  using Configuration = HTTPSession::Configuration;
  using TaskIdentifier = HTTPSession::TaskIdentifier;
  explicit HTTPSessionImpl(Configuration settings) : configuration(std::move(settings)) {
    initializeCurlOnce();
    multi.reset(curl_multi_init());
    share.reset(curl_share_init());
    if (multi) {
      curl_multi_setopt(multi.get(), CURLMOPT_MAXCONNECTS, kConnectionCacheSize);
    }
    if (share) {
      // Every easy handle of the session runs on the session's thread, so the share needs no
      // lock functions.
      curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
      curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
      curl_share_setopt(share.get(), CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }
    // libcurl makes a multi handle even when it cannot open the channel that wakes its wait
    // (no file descriptor left); such a session would never notice a new task.
    if (!multi || !share) {
      unusable = "The HTTP client could not be initialised.";
    } else if (curl_multi_wakeup(multi.get()) != CURLM_OK) {
      unusable =
          "The HTTP client cannot wake its event loop (the process may be out of file "
          "descriptors). Free some and start a new session.";
    }
    if (!unusable.empty()) {
      log("HTTPSession: ", unusable);
    }
  }

  HTTPSessionImpl(const HTTPSessionImpl&) = delete;
  HTTPSessionImpl& operator=(const HTTPSessionImpl&) = delete;

  ~HTTPSessionImpl() {
    // Handles must leave the multi handle, and let go of the share, before either is cleaned up.
    for (auto& [easy, transfer] : active) {
      curl_multi_remove_handle(multi.get(), easy);
    }
    active.clear();
    idle.clear();
  }

  void threadMain();
  void wake();
  void failActive(const std::string& what, CURLMcode code);
  void startTransfers(std::vector<std::unique_ptr<Transfer>>& transfers);
  std::optional<KQError> configure(Transfer& transfer);
  std::optional<KQError> takeHandle(Transfer& transfer);
  void recycle(EasyHandle easy);
  void finish(CURL* easy, CURLcode result);
  void finish(std::unique_ptr<Transfer> transfer, std::optional<KQError> error);
  void cancel(const std::vector<TaskIdentifier>& identifiers);
  int expireIdleTransfers();
  X509_STORE* trustStore();
  static CURLcode prepareTLSContext(CURL* easy, void* context, void* user);

  const Configuration configuration;
  MultiHandle multi;
  ShareHandle share;
  std::string unusable;  // why no task can run, set once before the thread starts
  std::uint64_t timeObserver = 0;
  std::atomic<std::thread::id> threadId;
  std::atomic<TaskIdentifier> nextIdentifier{1};

  Mutex mutex;
  std::vector<std::unique_ptr<Transfer>> incoming KQ_GUARDED_BY(mutex);
  std::vector<TaskIdentifier> cancellations KQ_GUARDED_BY(mutex);
  bool stopping KQ_GUARDED_BY(mutex) = false;
  std::condition_variable workArrived;  // wakes the thread while no transfer runs
  bool finished KQ_GUARDED_BY(mutex) = false;
  // The thread sleeps in curl_multi_poll, not on workArrived.
  bool polling KQ_GUARDED_BY(mutex) = false;
  OwnedThread thread;

  // Owned by the session's thread.
  std::map<CURL*, std::unique_ptr<Transfer>> active;
  std::vector<EasyHandle> idle;  // reset, ready for the next transfer
  TrustStore store;
  bool storeLoaded = false;
  std::string storeProblem;
};

X509_STORE* detail::HTTPSessionImpl::trustStore() {
  if (storeLoaded) {
    return store.get();
  }
  storeLoaded = true;
  TrustStore loading(X509_STORE_new());
  if (!loading) {
    storeProblem = "Cannot create a certificate store.";
    return nullptr;
  }
  const auto problem = [](const std::string& what) {
    const unsigned long code = ERR_get_error();
    ERR_clear_error();
    char reason[256] = {};
    ERR_error_string_n(code, reason, sizeof reason);
    return what + (code != 0 ? std::string(": ") + reason : std::string());
  };
  if (configuration.trustSystemAuthorities) {
    const curl_version_info_data* version = curl_version_info(CURLVERSION_NOW);
    const bool bundle = version->cainfo != nullptr && *version->cainfo != '\0';
    const bool folder = version->capath != nullptr && *version->capath != '\0';
    if (bundle && X509_STORE_load_file(loading.get(), version->cainfo) != 1) {
      log("HTTPSession: ",
          problem(std::string("cannot load the system certificates in ") + version->cainfo));
    }
    if (!bundle && folder && X509_STORE_load_path(loading.get(), version->capath) != 1) {
      log("HTTPSession: ",
          problem(std::string("cannot use the system certificates in ") + version->capath));
    }
    if (!bundle && !folder && X509_STORE_set_default_paths(loading.get()) != 1) {
      log("HTTPSession: ", problem("cannot find the system certificates"));
    }
  }
  if (!configuration.caFile.empty() &&
      X509_STORE_load_file(loading.get(), configuration.caFile.c_str()) != 1) {
    storeProblem = problem("Cannot load the trusted certificates in " + configuration.caFile);
    log("HTTPSession: ", storeProblem);
    return nullptr;
  }
  ERR_clear_error();
  store = std::move(loading);
  return store.get();
}

CURLcode detail::HTTPSessionImpl::prepareTLSContext(CURL* /*easy*/, void* context, void* user) {
  // Called for each new TLS connection: hand it the session's store instead of loading
  // certificates again.
  auto* impl = static_cast<HTTPSessionImpl*>(user);
  X509_STORE* store = impl->trustStore();
  if (store == nullptr || X509_STORE_up_ref(store) != 1) {
    return CURLE_SSL_CACERT_BADFILE;
  }
  SSL_CTX_set_cert_store(static_cast<SSL_CTX*>(context), store);
  return CURLE_OK;
}

std::optional<KQError> detail::HTTPSessionImpl::takeHandle(Transfer& transfer) {
  if (!idle.empty()) {
    transfer.easy = std::move(idle.back());
    idle.pop_back();
    return std::nullopt;
  }
  EasyHandle easy(curl_easy_init());
  if (!easy) {
    return transportError(CURLE_FAILED_INIT, "The HTTP client could not be initialised.",
                          transfer.request.url);
  }
  // The options every transfer of the session shares, set once for the handle's life.
  CURL* handle = easy.get();
  curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(handle, CURLOPT_MAXREDIRS, kMaximumRedirects);
  curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(handle, CURLOPT_TCP_NODELAY, 1L);
  // Decode what arrives compressed; what is asked for is settled with the header fields.
  curl_easy_setopt(handle, CURLOPT_ACCEPT_ENCODING, "");
  curl_easy_setopt(handle, CURLOPT_USERAGENT, "KQVisitorCore/1.0");
  curl_easy_setopt(handle, CURLOPT_SHARE, share.get());
  curl_easy_setopt(handle, CURLOPT_COOKIEFILE, "");  // cookie engine on, nothing read from disk
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, receiveBody);
  curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, receiveHeader);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, reportProgress);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle, CURLOPT_SSL_VERIFYHOST, 2L);
  // The trust store comes from prepareTLSContext; libcurl loads nothing itself.
  curl_easy_setopt(handle, CURLOPT_CAINFO, static_cast<char*>(nullptr));
  curl_easy_setopt(handle, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  if (curl_easy_setopt(handle, CURLOPT_SSL_CTX_FUNCTION, prepareTLSContext) != CURLE_OK ||
      curl_easy_setopt(handle, CURLOPT_SSL_CTX_DATA, this) != CURLE_OK) {
    return transportError(CURLE_NOT_BUILT_IN,
                          "The HTTP client's TLS library cannot take a certificate store.",
                          transfer.request.url);
  }
  transfer.easy = std::move(easy);
  return std::nullopt;
}

void detail::HTTPSessionImpl::recycle(EasyHandle easy) {
  if (!easy || idle.size() >= kIdleHandleLimit) {
    return;
  }
  // What configure() set for one request's method goes back to a GET; the shared options stay,
  // as do the multi's connections and the share's cookies and caches. Cheaper than
  // curl_easy_reset, after which every shared option would have to be set again. The pointers
  // into the finished transfer are set anew for the next one before libcurl reads them; only
  // the error buffer, which libcurl may write to at any call, is taken away now.
  CURL* handle = easy.get();
  curl_easy_setopt(handle, CURLOPT_CURLU, static_cast<CURLU*>(nullptr));  // else it outranks a URL
  curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, static_cast<char*>(nullptr));
  curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{-1});
  curl_easy_setopt(handle, CURLOPT_POSTFIELDS, static_cast<char*>(nullptr));
  curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, static_cast<char*>(nullptr));
  // Last, since the one above leaves a POST; this also ends a HEAD.
  curl_easy_setopt(handle, CURLOPT_HTTPGET, 1L);
  idle.push_back(std::move(easy));
}

std::optional<KQError> detail::HTTPSessionImpl::configure(Transfer& transfer) {
  const HTTPRequest& request = transfer.request;
  if (auto reason = malformedRequestReason(request)) {
    return transportError(HTTPSession::kErrorBadRequest, *reason, request.url);
  }
  if (!unusable.empty()) {
    return transportError(HTTPSession::kErrorClientUnusable, unusable, request.url);
  }
  if (auto error = takeHandle(transfer)) {
    return error;
  }
  CURL* easy = transfer.easy.get();
  curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
  // Handed over parsed, with the flags libcurl parses a URL string with: libcurl then takes a
  // copy instead of parsing and rebuilding the text once more, which costs more than the rest of
  // a small request. A URL that does not parse goes as text, for libcurl to say what is wrong.
  transfer.location.reset(curl_url());
  if (transfer.location &&
      curl_url_set(transfer.location.get(), CURLUPART_URL, request.url.c_str(),
                   CURLU_GUESS_SCHEME | CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK) {
    curl_easy_setopt(easy, CURLOPT_CURLU, transfer.location.get());
  } else {
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  }
  // A request made over HTTPS never continues in the clear.
  const bool secure =
      request.url.size() >= 6 && curl_strnequal(request.url.c_str(), "https:", 6) != 0;
  curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, secure ? "https" : "http,https");
  curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorBuffer);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_HEADERDATA, &transfer);
  curl_easy_setopt(easy, CURLOPT_XFERINFODATA, &transfer);
  // Progress is followed while a body goes out, to report it and to see an upload move; what
  // arrives, the two receive callbacks see.
  curl_easy_setopt(easy, CURLOPT_NOPROGRESS, request.httpBody ? 0L : 1L);

  // A handle comes set for a GET.
  if (request.httpBody) {
    curl_easy_setopt(easy, CURLOPT_POST, 1L);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(request.httpBody->size()));
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.httpBody->data());
    if (request.httpMethod != "POST") {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
    }
  } else if (request.httpMethod == "HEAD") {
    curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
  } else if (request.httpMethod != "GET") {
    curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.httpMethod.c_str());
  }

  // "Expect:" with no value stops libcurl from waiting for "100 Continue" before large bodies;
  // "Accept-Encoding:" drops libcurl's own field, so that no compression is asked for (see the
  // class comment) unless the request asks itself.
  curl_slist* list = nullptr;
  const auto append = [&list](const char* line) {
    curl_slist* longer = curl_slist_append(list, line);  // null, and `list` intact, on failure
    list = longer != nullptr ? longer : list;
    return longer != nullptr;
  };
  bool complete =
      (!request.httpBody || append("Expect:")) &&
      (request.valueForHTTPHeaderField("Accept-Encoding") || append("Accept-Encoding:"));
  std::string line;
  for (const auto& [name, value] : request.allHTTPHeaderFields.fields()) {
    // "Name;" is libcurl's way of sending a field with an empty value.
    line.assign(name).append(value.empty() ? ";" : ": ").append(value);
    complete = complete && append(line.c_str());
  }
  transfer.headers.reset(list);
  if (!complete) {
    return transportError(CURLE_OUT_OF_MEMORY, "Out of memory.", request.url);
  }
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, list);
  return std::nullopt;
}

void detail::HTTPSessionImpl::startTransfers(std::vector<std::unique_ptr<Transfer>>& transfers) {
  const auto now = transfers.empty() ? Clock::TimePoint() : Clock::shared()->now();
  for (auto& transfer : transfers) {
    transfer->lastActivity = now;
    if (auto error = configure(*transfer)) {
      finish(std::move(transfer), std::move(error));
      continue;
    }
    CURL* easy = transfer->easy.get();
    if (const CURLMcode code = curl_multi_add_handle(multi.get(), easy); code != CURLM_OK) {
      const std::string url = transfer->request.url;
      finish(std::move(transfer),
             transportError(HTTPSession::kErrorClientUnusable, curl_multi_strerror(code), url));
      continue;
    }
    active.emplace(easy, std::move(transfer));
  }
}

void detail::HTTPSessionImpl::finish(CURL* easy, CURLcode result) {
  const auto found = active.find(easy);
  if (found == active.end()) {
    return;
  }
  std::unique_ptr<Transfer> transfer = std::move(found->second);
  active.erase(found);
  curl_multi_remove_handle(multi.get(), easy);

  if (transfer->abortError) {
    std::optional<KQError> error = std::move(transfer->abortError);
    finish(std::move(transfer), std::move(error));
    return;
  }
  if (result != CURLE_OK) {
    std::string description = transfer->errorBuffer;
    if (result == CURLE_SSL_CACERT_BADFILE && !storeProblem.empty()) {
      description = storeProblem;
    }
    if (description.empty()) {
      description = curl_easy_strerror(result);
    }
    KQError error = isOffline(easy, result)
                        ? offlineError(description, transfer->request.url)
                        : transportError(result, description, transfer->request.url);
    finish(std::move(transfer), std::move(error));
    return;
  }
  // The last upload report always comes, however the throttle fell.
  curl_off_t uploaded = 0;
  curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &uploaded);
  if (transfer->progress && transfer->request.httpBody && !transfer->request.httpBody->empty() &&
      uploaded == static_cast<curl_off_t>(transfer->request.httpBody->size()) &&
      transfer->lastReportedSent != uploaded) {
    transfer->progress(uploaded, uploaded);
  }

  HTTPResponse response;
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  response.statusCode = status;
  const char* url = nullptr;
  curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &url);
  response.url = url != nullptr ? url : transfer->request.url;
  response.allHeaderFields = std::move(transfer->responseHeaders);
  // The caller hears first; the easy handle is put back after, off the answer's path.
  transfer->completion(std::move(transfer->body), std::move(response), std::nullopt);
  recycle(std::move(transfer->easy));
}

void detail::HTTPSessionImpl::finish(std::unique_ptr<Transfer> transfer,
                                     std::optional<KQError> error) {
  auto completion = std::move(transfer->completion);
  recycle(std::move(transfer->easy));  // the easy handle goes back before the caller hears
  transfer.reset();
  completion(std::nullopt, std::nullopt, std::move(error));
}

void detail::HTTPSessionImpl::cancel(const std::vector<TaskIdentifier>& identifiers) {
  for (const TaskIdentifier identifier : identifiers) {
    const auto found = std::find_if(active.begin(), active.end(), [&](const auto& entry) {
      return entry.second->identifier == identifier;
    });
    if (found == active.end()) {
      continue;
    }
    found->second->abortError = transportError(
        HTTPSession::kErrorCancelled, "The task was cancelled.", found->second->request.url);
    finish(found->first, CURLE_ABORTED_BY_CALLBACK);
  }
}

int detail::HTTPSessionImpl::expireIdleTransfers() {
  // Fails the transfers that have been idle past their time-out; answers how long until the
  // next one would (INT_MAX when none is running).
  if (active.empty()) {
    return INT_MAX;
  }
  const auto now = Clock::shared()->now();
  std::vector<CURL*> expired;
  auto nearest = Clock::TimePoint::max();
  for (const auto& [easy, transfer] : active) {
    if (transfer->moved) {
      transfer->moved = false;
      transfer->lastActivity = now;
    }
    const auto deadline = transfer->lastActivity + transfer->request.timeoutInterval;
    if (deadline <= now) {
      expired.push_back(easy);
    } else {
      nearest = std::min(nearest, deadline);
    }
  }
  for (CURL* easy : expired) {
    Transfer& transfer = *active.at(easy);
    transfer.abortError =
        transportError(HTTPSession::kErrorTimedOut,
                       "The request timed out: nothing was sent or received for " +
                           std::to_string(transfer.request.timeoutInterval.count()) + " ms.",
                       transfer.request.url);
    finish(easy, CURLE_OPERATION_TIMEDOUT);
  }
  if (nearest == Clock::TimePoint::max()) {
    return INT_MAX;
  }
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nearest - now);
  return static_cast<int>(std::clamp<std::int64_t>(wait.count(), 0, INT_MAX));
}

void detail::HTTPSessionImpl::wake() {
  // Only the way the thread sleeps needs waking: a wake-up of libcurl's poll costs a write and
  // two reads on its socket pair, so a thread that waits on the condition is not sent one.
  bool inPoll = false;
  {
    MutexLock lock(mutex);
    inPoll = polling;
  }
  if (!inPoll) {
    workArrived.notify_one();
  } else if (unusable.empty()) {
    curl_multi_wakeup(multi.get());
  }
}

void detail::HTTPSessionImpl::failActive(const std::string& what, CURLMcode code) {
  // libcurl's loop itself failed: the running transfers cannot go on. Later tasks try again.
  log("HTTPSession: libcurl failed while ", what, ": ", curl_multi_strerror(code));
  while (!active.empty()) {
    Transfer& transfer = *active.begin()->second;
    transfer.abortError = transportError(
        HTTPSession::kErrorClientUnusable,
        "The HTTP client failed while " + what + ": " + curl_multi_strerror(code) + ".",
        transfer.request.url);
    finish(active.begin()->first, CURLE_FAILED_INIT);
  }
}

void detail::HTTPSessionImpl::threadMain() {
  threadId = std::this_thread::get_id();
  // Kept across turns, and swapped with the queue, so that a turn allocates nothing for them.
  std::vector<std::unique_ptr<Transfer>> arrived;
  std::vector<std::pair<CURL*, CURLcode>> done;
  for (;;) {
    std::vector<TaskIdentifier> cancelled;
    {
      MutexLock lock(mutex);
      if (stopping) {
        break;
      }
      arrived.swap(incoming);
      cancelled.swap(cancellations);
    }
    startTransfers(arrived);
    arrived.clear();
    cancel(cancelled);

    if (!active.empty()) {
      int running = 0;
      if (const CURLMcode code = curl_multi_perform(multi.get(), &running); code != CURLM_OK) {
        failActive("running the transfers", code);
      }
      done.clear();
      int queued = 0;
      while (CURLMsg* message = curl_multi_info_read(multi.get(), &queued)) {
        if (message->msg == CURLMSG_DONE) {
          done.emplace_back(message->easy_handle, message->data.result);
        }
      }
      for (const auto& [easy, result] : done) {
        finish(easy, result);
      }
    }
    const int wait = expireIdleTransfers();
    {
      MutexLock lock(mutex);
      const auto hasWork = [this]() KQ_REQUIRES(mutex) {
        return stopping || !incoming.empty() || !cancellations.empty();
      };
      if (hasWork()) {
        continue;
      }
      if (active.empty()) {
        // Nothing for libcurl to watch: sleep until a task, a cancellation or the end.
        while (!hasWork()) {
          lock.wait(workArrived);
        }
        continue;
      }
      polling = true;
    }
    // Sleeps until a socket is ready, libcurl's own next deadline, the nearest idle time-out,
    // or a wake-up from a thread that queued work or moved the clock.
    const CURLMcode code = curl_multi_poll(multi.get(), nullptr, 0, wait, nullptr);
    {
      MutexLock lock(mutex);
      polling = false;
    }
    if (code != CURLM_OK) {
      failActive("waiting for the network", code);
    }
  }

  // Stopping: everything not finished fails as cancelled, including tasks that completions
  // start meanwhile.
  for (;;) {
    arrived.clear();
    {
      MutexLock lock(mutex);
      arrived.swap(incoming);
      if (arrived.empty() && active.empty()) {
        finished = true;
        break;
      }
    }
    for (auto& transfer : arrived) {
      const std::string url = transfer->request.url;
      finish(std::move(transfer),
             transportError(HTTPSession::kErrorCancelled,
                            "The session was closed before the task ended.", url));
    }
    while (!active.empty()) {
      Transfer& transfer = *active.begin()->second;
      transfer.abortError =
          transportError(HTTPSession::kErrorCancelled,
                         "The session was closed before the task ended.", transfer.request.url);
      finish(active.begin()->first, CURLE_ABORTED_BY_CALLBACK);
    }
  }
}

// --- Public interface -------------------------------------------------------------------------

HTTPSession::HTTPSession(std::shared_ptr<Impl> impl) : impl_(std::move(impl)) {}

const std::shared_ptr<HTTPSession>& HTTPSession::sharedSession() {
  // Never destroyed: completions may run while the process exits.
  static auto* shared = [] {
    Configuration configuration;
    // A broken setting is logged by the configuration, and the web service refuses its calls.
    configuration.caFile = KQVisitorConfig::shared().caFile;
    return new std::shared_ptr<HTTPSession>(create(std::move(configuration)));
  }();
  return *shared;
}

std::shared_ptr<HTTPSession> HTTPSession::create(Configuration configuration) {
  auto impl = std::make_shared<Impl>(std::move(configuration));
  // A clock that jumps may bring an idle time-out forward.
  impl->timeObserver = Clock::addTimeObserver([weak = std::weak_ptr<Impl>(impl)] {
    if (const auto locked = weak.lock()) {
      locked->wake();
    }
  });
  impl->thread = OwnedThread(impl->configuration.label, [impl] { impl->threadMain(); });
  return std::shared_ptr<HTTPSession>(new HTTPSession(std::move(impl)));
}

HTTPSession::~HTTPSession() {
  Clock::removeTimeObserver(impl_->timeObserver);
  {
    MutexLock lock(impl_->mutex);
    impl_->stopping = true;
  }
  impl_->wake();
  // In a completion on the session's own thread, the thread holds the state and ends after it.
  impl_->thread.release();
}

HTTPSession::TaskIdentifier HTTPSession::dataTaskWithRequest(HTTPRequest request,
                                                             Completion completion,
                                                             Progress uploadProgress) {
  auto transfer = std::make_unique<Transfer>();
  transfer->identifier = impl_->nextIdentifier++;
  transfer->request = std::move(request);
  transfer->completion = std::move(completion);
  transfer->progress = std::move(uploadProgress);
  const TaskIdentifier identifier = transfer->identifier;
  std::unique_ptr<Transfer> dropped;
  {
    MutexLock lock(impl_->mutex);
    if (impl_->finished) {
      dropped = std::move(transfer);
    } else {
      impl_->incoming.push_back(std::move(transfer));
    }
  }
  if (dropped) {
    // The session's thread has ended while the session is being destroyed: the task still
    // completes, off the caller's stack.
    OwnedThread::runAlone(
        impl_->configuration.label, [transfer = std::shared_ptr<Transfer>(std::move(dropped))] {
          transfer->completion(std::nullopt, std::nullopt,
                               transportError(HTTPSession::kErrorCancelled,
                                              "The session was closed before the task ended.",
                                              transfer->request.url));
        });
    return identifier;
  }
  impl_->wake();
  return identifier;
}

void HTTPSession::cancelTask(TaskIdentifier identifier) {
  {
    MutexLock lock(impl_->mutex);
    impl_->cancellations.push_back(identifier);
  }
  impl_->wake();
}

bool HTTPSession::isCurrent() const {
  return impl_->threadId.load() == std::this_thread::get_id();
}

}  // namespace kq
