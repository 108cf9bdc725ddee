#pragma once

#include <string>
#include <vector>

namespace kqsandbox {

/// How a scripted operator answers: replies[n-1] to the visitor's n-th message (the last reply
/// again when they run out), and after its answer to message `endAfter` (0: never) the chat ends
/// with the control text that ends a room.
struct OperatorScript {
  static constexpr const char* kEndText = "[destroy room]";

  std::vector<std::string> replies;
  int endAfter = 0;

  /// What the operator says after the visitor's message number `count` (from 1), in order.
  [[nodiscard]] std::vector<std::string> answersTo(int count) const {
    std::vector<std::string> answers;
    if (!replies.empty() && count > 0) {
      answers.push_back(replies[std::min<std::size_t>(count, replies.size()) - 1]);
    }
    if (endAfter > 0 && count == endAfter) {
      answers.emplace_back(kEndText);
    }
    return answers;
  }
};

}  // namespace kqsandbox
