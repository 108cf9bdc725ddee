#pragma once

#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/HTTPRequest.h>
#include <KQVisitorCore/Platform/HTTPResponse.h>
#include <KQVisitorCore/Platform/KQError.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kq {

namespace detail {
struct HTTPSessionImpl;  // the session's state, private to HTTPSession.cpp
}  // namespace detail

/// An HTTP(S) client session in the manner of the platform's shared URL session: tasks run
/// concurrently on one thread of the session's own (its "delegate queue"), share one cache of
/// keep-alive connections, one cookie store and one TLS trust store, and report through
/// completion callbacks that run on that thread.
///
/// TLS peers are always verified: against the system's certificate authorities plus those of
/// Configuration::caFile, loaded once per session (on its first TLS connection) and kept.
///
/// No compression is asked for unless a request sets "Accept-Encoding" itself: servers compress
/// what a client accepts, and compressing a small JSON answer costs a server more than sending
/// it. An answer that comes compressed all the same (gzip, deflate, brotli) arrives decoded.
///
/// Thread-safe: tasks may be started from any thread, also from inside a completion.
///
/// A request fails with kErrorTimedOut once nothing has been sent or received for its
/// timeoutInterval, measured on Clock::shared().
class KQ_EXPORT HTTPSession {
 public:
  /// Transport errors carry this domain, libcurl's error code, and in userInfo
  /// "NSLocalizedDescription" (what went wrong, in words) and "NSErrorFailingURLStringKey".
  static constexpr std::string_view kErrorDomain = "CURLE";
  /// Codes of the transport errors a caller may want to tell apart (libcurl's values).
  static constexpr long kErrorUnsupportedProtocol = 1;
  /// libcurl could not be set up, or its event loop failed; the description says what failed.
  /// A session whose set-up failed fails every task at once with it.
  static constexpr long kErrorClientUnusable = 2;
  /// The URL could not be parsed.
  static constexpr long kErrorMalformedURL = 3;
  /// The host name did not resolve.
  static constexpr long kErrorCouldNotResolveHost = 6;
  /// No connection could be made to the host.
  static constexpr long kErrorCouldNotConnect = 7;
  /// Nothing sent or received for timeoutInterval.
  static constexpr long kErrorTimedOut = 28;
  static constexpr long kErrorBadRequest = 43;  ///< method or header that cannot be sent
  /// Stopped by cancelTask(), or the session ended.
  static constexpr long kErrorCancelled = 42;
  /// The TLS peer is not trusted.
  static constexpr long kErrorPeerFailedVerification = 60;
  /// Configuration::caFile did not load.
  static constexpr long kErrorTrustStoreUnusable = 77;

  /// A request that failed because the machine has no usable network is reported in this
  /// domain with kErrorNotConnectedToInternet (the platform's code for it) instead of libcurl's:
  /// the connection found no route (network or host unreachable), or the name could not be
  /// resolved while the internet connection is unreachable. userInfo is as above, with
  /// "NSUnderlyingError" holding libcurl's description.
  static constexpr std::string_view kURLErrorDomain = "NSURLErrorDomain";
  /// No usable network.
  static constexpr long kErrorNotConnectedToInternet = -1009;

  /// The outcome of a task. On an answer (whatever its status) `data` holds the body (possibly
  /// empty), `response` the head and `error` is empty; on a transport failure only `error` is
  /// set.
  using Completion =
      std::function<void(std::optional<std::string> data, std::optional<HTTPResponse> response,
                         std::optional<KQError> error)>;
  /// Upload progress: bytes of the body sent so far and the body's size. Reports are spaced at
  /// least kProgressInterval apart, except the last (sent == expected), which always comes.
  using Progress =
      std::function<void(std::int64_t totalBytesSent, std::int64_t totalBytesExpectedToSend)>;
  /// Names a task for cancelTask(); unique within the session.
  using TaskIdentifier = std::uint64_t;

  /// The least time between two upload progress reports of a task.
  static constexpr std::chrono::milliseconds kProgressInterval{50};

  /// How a session made by create() is set up.
  struct Configuration {
    /// A PEM file of further trusted certificate authorities, on top of the system's; empty for
    /// none. A file that cannot be loaded makes every TLS connection fail with
    /// kErrorTrustStoreUnusable and a description naming the file.
    std::string caFile;
    /// Whether the system's certificate authorities are trusted. Tests turn it off to prove that
    /// an unknown authority is refused.
    bool trustSystemAuthorities = true;
    /// Name of the session's thread (at most 15 characters show in debuggers).
    std::string label = "kq.http";
  };

  /// The process-wide session, created on first use with the caFile of
  /// KQVisitorConfig::shared() at that moment. It lives until the process ends.
  static const std::shared_ptr<HTTPSession>& sharedSession();

  /// A session of its own (tests, or a host that wants separate connections).
  static std::shared_ptr<HTTPSession> create(Configuration configuration);

  HTTPSession(const HTTPSession&) = delete;
  HTTPSession& operator=(const HTTPSession&) = delete;

  /// Ends the session's thread. Tasks still running fail with kErrorCancelled first, on the
  /// session's thread, and so do tasks their completions start meanwhile. Called on that thread (a
  /// completion released the last reference), it returns at once and the thread ends after the
  /// running callback.
  ~HTTPSession();

  /// Starts a task for `request` and returns its identifier. `completion` runs exactly once, on
  /// the session's thread, never inside this call; `uploadProgress` (may be empty) runs there
  /// too, before the completion.
  TaskIdentifier dataTaskWithRequest(HTTPRequest request, Completion completion,
                                     Progress uploadProgress = {});

  /// Stops a running task: its completion runs with kErrorCancelled (on the session's thread),
  /// unless it has already run or is running. Unknown identifiers are ignored.
  void cancelTask(TaskIdentifier identifier);

  /// True on the session's thread, where completions run.
  [[nodiscard]] bool isCurrent() const;

 private:
  using Impl = detail::HTTPSessionImpl;
  explicit HTTPSession(std::shared_ptr<Impl> impl);
  std::shared_ptr<Impl> impl_;
};

}  // namespace kq
