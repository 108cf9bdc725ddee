#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include "tests/support/FaultRelay.h"
#include "tests/support/MainQueue.h"
#include "tests/support/XMPPTestDelegates.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kq::test {

/// A chat kept up while the network fails: the visitor (the library's client singleton, its
/// room, reaching the server through a FaultRelay) and an operator (straight to the server) in
/// one room on a Prosody with stream management and a room archive, each writing a numbered
/// line ("v-1", "o-1", ...) every interval on a timer of the main queue.
/// The caller breaks the network meanwhile; finish() stops the writing, waits for what is owed
/// and reports what each side's transcript holds, and how long each fault took to heal.
///
/// Everything runs on the main queue, which every wait here pumps. The destructor leaves the
/// singletons (client, web service, configuration) as a test fixture's TearDown does.
class ChatSurvival {
 public:
  using Seconds = std::chrono::duration<double>;

  struct Options {
    std::chrono::milliseconds interval{400};  ///< between two lines of each side
    /// The visitor stream's: how long a silent drop goes unnoticed while lines are written.
    Seconds acknowledgementTimeout = xmpp::XMPPStream::kDefaultAcknowledgementTimeout;
    bool tls = false;
  };

  enum class FaultKind { Reset, SilentDrop, Restart };
  static const char* nameOf(FaultKind kind);
  /// One fault; the durations are counted from `at`.
  struct Fault {
    FaultKind kind;
    Clock::TimePoint at;
    std::optional<Seconds> noticed;  ///< the visitor's stream took the link for dead
    std::optional<Seconds> flowing;  ///< a line written since `at` arrived, each way
  };

  /// The lines of one direction, as the receiving transcript holds them.
  struct Direction {
    int sent = 0;
    int lost = 0;
    int duplicated = 0;                 ///< extra copies
    int outOfOrder = 0;                 ///< held after a later line
    std::vector<std::string> problems;  ///< each missing, repeated or misplaced line
  };

  struct Report {
    Direction visitorToOperator;  ///< in the operator's transcript
    Direction operatorToVisitor;  ///< in the visitor's (KQVisitorRoom::messages())
    Direction visitorEchoes;      ///< the visitor's own lines in its own transcript
    std::vector<Fault> faults;
    bool drained = false;  ///< everything written arrived within the bound
    [[nodiscard]] bool clean() const;
  };

  explicit ChatSurvival(Options options);
  ~ChatSurvival();
  ChatSurvival(const ChatSurvival&) = delete;
  ChatSurvival& operator=(const ChatSurvival&) = delete;

  /// Opens the chat (the visitor logs in and makes the room, the operator joins it) and starts
  /// the writing; false when that did not happen within the tests' patience.
  bool start();

  /// Faults, each recorded as the last fault.
  void reset();
  void beginSilentDrop();
  void endSilentDrop();
  /// Stops the server and starts it again (pumping the main queue meanwhile).
  void restartServer();

  [[nodiscard]] const Fault& lastFault() const;
  /// Waits until the last fault has healed (Fault::flowing) or was noticed.
  bool waitUntilFlowing(Clock::Duration patience = kPatience);
  bool waitUntilNoticed(Clock::Duration patience = kPatience);
  [[nodiscard]] FaultRelay::Counts relayCounts() const;
  /// What the visitor's stream told since start().
  [[nodiscard]] const StreamEvents& visitorEvents() const;
  /// Pumps the main queue for `duration`.
  static void runFor(Clock::Duration duration);

  /// Stops the writing, waits up to `bound` for every line to arrive (then for one more line
  /// each way, so that nothing sent earlier is still on its way) and reports.
  Report finish(Clock::Duration bound);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kq::test
