#pragma once

#include <KQVisitorCore/Platform/KQError.h>
#include <KQVisitorCore/XMPP/XMPPStream.h>

#include <chrono>
#include <sstream>
#include <string>

namespace kq::xmpp {

/// One of the stream's own errors (XMPPStream::kErrorDomain), described for the user.
inline KQError streamError(long code, const std::string& description) {
  KQError error{XMPPStream::kErrorDomain, code, nlohmann::ordered_json::object()};
  error.userInfo["NSLocalizedDescription"] = description;
  return error;
}

/// A time-out as an error's description gives it: "20 s".
inline std::string secondsText(std::chrono::duration<double> duration) {
  std::ostringstream text;
  text << duration.count() << " s";
  return text.str();
}

}  // namespace kq::xmpp
