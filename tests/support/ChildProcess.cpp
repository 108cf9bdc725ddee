#include "tests/support/ChildProcess.h"

#include "tests/support/MainQueue.h"
#include "tests/support/TemporaryDirectory.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <chrono>
#include <stdexcept>

namespace kq::test {

int spawnChild(pid_t& child, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment,
               const posix_spawn_file_actions_t& actions) {
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    variables.emplace_back(*entry);
  }
  variables.insert(variables.end(), environment.begin(), environment.end());
  const auto pointers = [](const std::vector<std::string>& strings) {
    std::vector<char*> result;
    result.reserve(strings.size() + 1);
    for (const auto& text : strings) {
      result.push_back(const_cast<char*>(text.c_str()));  // posix_spawn does not write them
    }
    result.push_back(nullptr);
    return result;
  };
  const auto argv = pointers(arguments);
  const auto envp = pointers(variables);
  return posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
}

ChildResult runChild(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment, const std::string& input) {
  // Its input and output are files: it can never block on a full pipe.
  const TemporaryDirectory folder;
  const std::string in = folder.file("in");
  const std::string out = folder.file("out");
  const std::string err = folder.file("err");
  writeFile(in, input);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT, 0600);
  pid_t child = 0;
  const int spawned = spawnChild(child, arguments, environment, actions);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    throw std::runtime_error("runChild: cannot run " + arguments.front());
  }
  ChildResult result;
  bool timedOut = false;
  pollfd ended = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
  const auto patience = std::chrono::duration_cast<std::chrono::milliseconds>(kPatience);
  if (ended.fd >= 0 && poll(&ended, 1, static_cast<int>(patience.count())) == 0) {
    timedOut = true;
    kill(child, SIGKILL);
  }
  close(ended.fd);
  int status = 0;
  waitpid(child, &status, 0);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = readFile(out);
  result.err = readFile(err);
  if (timedOut) {
    result.err += "\n(killed: still running after " + std::to_string(kPatience.count()) + " s)";
  }
  return result;
}

void runOrThrow(const std::vector<std::string>& arguments) {
  const ChildResult result = runChild(arguments);
  if (result.exitStatus != 0) {
    std::string command;
    for (const auto& argument : arguments) {
      command.append(argument).append(" ");
    }
    throw std::runtime_error("\"" + command + "\" failed: " + result.err);
  }
}

}  // namespace kq::test
