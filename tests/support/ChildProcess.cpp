#include "tests/support/ChildProcess.h"

#include "tests/support/MainQueue.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <algorithm>
#include <chrono>
#include <stdexcept>

namespace kq::test {

int spawnChild(pid_t& child, const std::vector<std::string>& arguments,
               const std::vector<std::string>& environment,
               const posix_spawn_file_actions_t& actions) {
  std::vector<std::string> owned = arguments;
  std::vector<char*> argv;
  argv.reserve(owned.size() + 1);
  for (auto& argument : owned) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  std::vector<std::string> variables;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    variables.emplace_back(*entry);
  }
  variables.insert(variables.end(), environment.begin(), environment.end());
  std::vector<char*> envp;
  envp.reserve(variables.size() + 1);
  for (auto& variable : variables) {
    envp.push_back(variable.data());
  }
  envp.push_back(nullptr);
  return posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), envp.data());
}

ChildResult runChild(const std::vector<std::string>& arguments,
                     const std::vector<std::string>& environment, const std::string& input) {
  int inPipe[2];
  int outPipe[2];
  int errPipe[2];
  if (pipe2(inPipe, O_CLOEXEC) != 0 || pipe2(outPipe, O_CLOEXEC) != 0 ||
      pipe2(errPipe, O_CLOEXEC) != 0) {
    throw std::runtime_error("runChild: cannot make pipes");
  }
  // The input is small: it fits the pipe's buffer, so writing it all before the child reads
  // cannot block.
  if (write(inPipe[1], input.data(), input.size()) != static_cast<ssize_t>(input.size())) {
    throw std::runtime_error("runChild: cannot write the child's input");
  }
  close(inPipe[1]);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, inPipe[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, outPipe[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errPipe[1], STDERR_FILENO);

  pid_t child = 0;
  const int spawned = spawnChild(child, arguments, environment, actions);
  posix_spawn_file_actions_destroy(&actions);
  close(inPipe[0]);
  close(outPipe[1]);
  close(errPipe[1]);
  ChildResult result;
  if (spawned != 0) {
    close(outPipe[0]);
    close(errPipe[0]);
    throw std::runtime_error("runChild: cannot run " + arguments.front());
  }
  // Both pipes are read together, so that a child filling one cannot block on it.
  pollfd pipes[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  const auto giveUp = std::chrono::steady_clock::now() + kPatience;
  while (open > 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        giveUp - std::chrono::steady_clock::now());
    const int ready =
        poll(pipes, 2, result.timedOut ? -1 : static_cast<int>(std::max<long>(left.count(), 0)));
    if (ready == 0 && !result.timedOut) {
      result.timedOut = true;
      kill(child, SIGKILL);  // its pipes close as it dies
      continue;
    }
    if (ready < 0) {
      continue;
    }
    for (int i = 0; i < 2; ++i) {
      if (pipes[i].fd < 0 || pipes[i].revents == 0) {
        continue;
      }
      char buffer[4096];
      const ssize_t count = read(pipes[i].fd, buffer, sizeof buffer);
      if (count <= 0) {
        close(pipes[i].fd);
        pipes[i].fd = -1;
        --open;
      } else {
        sinks[i]->append(buffer, static_cast<std::size_t>(count));
      }
    }
  }
  int status = 0;
  waitpid(child, &status, 0);
  result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  if (result.timedOut) {
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
