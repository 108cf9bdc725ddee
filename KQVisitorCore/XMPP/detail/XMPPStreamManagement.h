#pragma once

#include <KQVisitorCore/Platform/Clock.h>
#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPElement.h>
#include <KQVisitorCore/XMPP/detail/XMPPStreamTimers.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kq::xmpp {

/// The client's side of stream management (XEP-0198) for one session, which may outlive its
/// connection: the count of stanzas received, the stanzas sent that the server has not
/// acknowledged yet, the requests for acknowledgement, and what a resumption needs (the
/// session's id). Internal to the library.
///
/// Only one request for acknowledgement is out at a time: a stanza sent while one is out is
/// covered by the next, which goes when the answer comes. When no answer comes within the
/// acknowledgement time-out, the link is taken for dead.
///
/// Used on the stream's queue only.
class XMPPStreamManagement {
 public:
  /// What stream management needs of the stream. Called on the stream's queue.
  class Host {
   public:
    virtual ~Host() = default;
    /// Writes `text` (a request or an answer) to the server.
    virtual void sendNonza(std::string_view text) = 0;
    /// No acknowledgement came in time: the connection is dead and ends with `error`.
    virtual void acknowledgementDidTimeOut(const KQError& error) = 0;
  };

  /// Stream management for `host`, arming its time-out through `schedule` (for the connection
  /// of the moment).
  XMPPStreamManagement(Host& host, XMPPStreamSchedule schedule);
  ~XMPPStreamManagement();
  XMPPStreamManagement(const XMPPStreamManagement&) = delete;
  XMPPStreamManagement& operator=(const XMPPStreamManagement&) = delete;

  /// A counter ("h", "max") as the server writes it; nullopt when it is not one.
  [[nodiscard]] static std::optional<std::uint32_t> counterValue(
      const std::optional<std::string>& text);

  /// The request that turns it on (with resumption); stanzas count from now. Answers what to
  /// write.
  std::string enable(std::chrono::duration<double> ackTimeout);
  /// Whether it is on: stanzas are counted and kept until acknowledged.
  [[nodiscard]] bool isEnabled() const { return enabled_; }
  /// Whether the server agreed to resume this session after a cut.
  [[nodiscard]] bool isResumable() const { return enabled_ && !resumptionId_.empty(); }
  [[nodiscard]] const std::string& resumptionId() const { return resumptionId_; }
  /// How long the server keeps the session after a cut (its "max"), when it said.
  [[nodiscard]] std::optional<std::chrono::seconds> resumptionWindow() const { return window_; }

  /// Handles `element` of the stream management namespace outside a resumption (<enabled>,
  /// <failed>, <r>, <a>); false when it is not one.
  bool receive(const XMPPElement& element);
  /// A stanza arrived.
  void didReceiveStanza() {
    if (countingReceived_) {
      ++received_;
    }
  }

  /// `stanza` was written: kept until the server acknowledges it, and asked about.
  void didSend(const XMPPElement& stanza);
  /// `stanza` is to go once the session has resumed: kept, not counted yet.
  void hold(const XMPPElement& stanza);

  /// The connection ended: no request is out any more; what was kept stays for a resumption.
  void connectionDidEnd();
  /// The request that resumes the session on a new connection.
  [[nodiscard]] std::string resumeRequest() const;
  /// The server resumed the session having handled `handled` of our stanzas: answers the
  /// stanzas to write again, in order (those it missed, then those held), each to be passed to
  /// didSend() once written.
  std::vector<XMPPElement> didResume(std::uint32_t handled);
  /// Turns it off and answers the stanzas that were never written, in order; the rest are
  /// forgotten (the server may or may not have them).
  std::vector<XMPPElement> reset();

 private:
  struct Kept {
    XMPPElement stanza;
    bool written = false;
  };

  void acknowledge(std::uint32_t handled);
  void requestAcknowledgement();

  Host& host_;
  const XMPPStreamSchedule schedule_;

  bool enabled_ = false;
  bool countingReceived_ = false;  // from <enabled/> on
  std::string resumptionId_;
  std::optional<std::chrono::seconds> window_;
  std::chrono::duration<double> ackTimeout_{};

  std::uint32_t received_ = 0;      // stanzas received (h), modulo 2^32
  std::uint32_t acknowledged_ = 0;  // of ours, by the server's last answer
  std::deque<Kept> kept_;           // written and not acknowledged, then held
  bool requestOut_ = false;
  std::shared_ptr<Timer> ackTimer_;
};

}  // namespace kq::xmpp
