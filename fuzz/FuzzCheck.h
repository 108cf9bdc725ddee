#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

namespace kq::fuzz {

// Stops the run with `what` and the values that disagree; libFuzzer then saves the input.
[[noreturn]] inline void fail(const char* what, const std::string& expected = {},
                              const std::string& actual = {}) {
  std::fprintf(stderr, "%s\n  expected: %s\n  actual:   %s\n", what, expected.c_str(),
               actual.c_str());
  std::abort();
}

inline void expectEqual(const char* what, const std::string& expected, const std::string& actual) {
  if (expected != actual) {
    fail(what, expected, actual);
  }
}

}  // namespace kq::fuzz
