#pragma once

#include <KQVisitorCore/Model/KQVisitorUser.h>
#include <KQVisitorCore/Platform/Export.h>
#include <KQVisitorCore/Platform/Timer.h>

#include <atomic>
#include <memory>
#include <mutex>

namespace kq {

/// The one object through which the library talks HTTP to the chat service, and which knows
/// the visitor of the session (currentUser).
class KQ_EXPORT KQVisitorWebService {
 public:
  KQVisitorWebService(const KQVisitorWebService&) = delete;
  KQVisitorWebService& operator=(const KQVisitorWebService&) = delete;

  /// The process-wide service, created on first use (thread-safe). It lives until the process
  /// ends.
  static KQVisitorWebService& sharedInstance();

  /// True when the visitor chats over HTTP polling instead of XMPP. Default false.
  [[nodiscard]] bool isHTTPClient() const { return isHTTPClient_.load(); }
  void setIsHTTPClient(bool isHTTPClient) { isHTTPClient_ = isHTTPClient; }

  /// The visitor of the session; null until a visitor logs in.
  [[nodiscard]] std::shared_ptr<KQVisitorUser> currentUser() const;
  void setCurrentUser(std::shared_ptr<KQVisitorUser> currentUser);

  /// A timer the host application may keep here; logout stops and clears it.
  [[nodiscard]] std::shared_ptr<Timer> timer() const;
  void setTimer(std::shared_ptr<Timer> timer);

  /// Flags kept for the host application; the library neither sets nor reads them.
  [[nodiscard]] bool isOperatorServiceActive() const { return isOperatorServiceActive_.load(); }
  void setIsOperatorServiceActive(bool active) { isOperatorServiceActive_ = active; }
  [[nodiscard]] bool isQAServiceActive() const { return isQAServiceActive_.load(); }
  void setIsQAServiceActive(bool active) { isQAServiceActive_ = active; }

 private:
  KQVisitorWebService() = default;

  std::atomic<bool> isHTTPClient_{false};
  std::atomic<bool> isOperatorServiceActive_{false};
  std::atomic<bool> isQAServiceActive_{false};
  mutable std::mutex mutex_;
  std::shared_ptr<KQVisitorUser> currentUser_;  // guarded by mutex_
  std::shared_ptr<Timer> timer_;                // guarded by mutex_
};

}  // namespace kq
