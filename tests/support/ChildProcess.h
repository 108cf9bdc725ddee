#pragma once

#include <spawn.h>

#include <string>
#include <utility>
#include <vector>

namespace kq::test {

/// What a finished child process left.
struct ChildResult {
  int exitStatus = -1;  ///< exit status, or -1 when it did not exit normally
  std::string out;      ///< everything written to stdout
  std::string err;      ///< everything written to stderr, and a note when it was killed
};

/// Runs `arguments` (the program first) with the environment of this process plus
/// `environment` (NAME=VALUE entries), and waits for it to end; a child still running after
/// kPatience is killed (a hang fails the test instead of holding it). Its standard input reads
/// `input` and then ends (at once when `input` is empty).
ChildResult runChild(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment = {},
                     const std::string& input = {});

/// Starts `arguments` (the program first, looked up in PATH) with the environment of this
/// process plus `environment` and the file actions given; posix_spawnp's result.
int spawnChild(pid_t& child, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment,
               const posix_spawn_file_actions_t& actions);

/// Runs a command that must succeed (test set-up such as "ip route add ..."); throws
/// std::runtime_error naming it and its stderr otherwise.
void runOrThrow(const std::vector<std::string>& arguments);

}  // namespace kq::test
