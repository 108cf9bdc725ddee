#include "tests/support/BackgroundChild.h"

#include "tests/support/ChildProcess.h"
#include "tests/support/MainQueue.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <stdexcept>

namespace kq::test {

BackgroundChild::BackgroundChild(const std::vector<std::string>& arguments,
                                 const std::vector<std::string>& environment, bool withInput) {
  int ends[2];
  int input[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0 || (withInput && pipe2(input, O_CLOEXEC) != 0)) {
    throw std::runtime_error("BackgroundChild: cannot make a pipe");
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  if (withInput) {
    posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
  const int spawned = spawnChild(pid_, arguments, environment, actions);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (withInput) {
    close(input[0]);
  }
  if (spawned != 0) {
    close(ends[0]);
    if (withInput) {
      close(input[1]);
    }
    throw std::runtime_error("BackgroundChild: cannot run " + arguments.front());
  }
  input_ = input[1];
  reader_ = std::thread([this, fd = ends[0]] {
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(fd, buffer, sizeof buffer)) > 0) {
      std::scoped_lock lock(mutex_);
      output_.append(buffer, static_cast<std::size_t>(count));
      changed_.notify_all();
    }
    close(fd);
    std::scoped_lock lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  });
}

BackgroundChild::~BackgroundChild() {
  stop();
}

std::string BackgroundChild::output() const {
  std::scoped_lock lock(mutex_);
  return output_;
}

int BackgroundChild::countLocked(const std::string& text) const {
  int count = 0;
  for (auto at = output_.find(text); at != std::string::npos;
       at = output_.find(text, at + text.size())) {
    ++count;
  }
  return count;
}

int BackgroundChild::occurrences(const std::string& text) const {
  std::scoped_lock lock(mutex_);
  return countLocked(text);
}

bool BackgroundChild::waitForOutput(const std::string& text, int times) const {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, kPatience, [&] { return ended_ || countLocked(text) >= times; });
  return countLocked(text) >= times;
}

void BackgroundChild::send(const std::string& text) const {
  if (input_ >= 0 && write(input_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    throw std::runtime_error("BackgroundChild: cannot write its input");
  }
}

int BackgroundChild::finishInput() {
  if (input_ >= 0) {
    close(input_);
    input_ = -1;
  }
  std::unique_lock lock(mutex_);
  const bool ended = changed_.wait_for(lock, kPatience, [&] { return ended_; });
  lock.unlock();
  const int status = stop();  // when it is already ending, SIGTERM changes nothing
  return ended ? status : -1;
}

int BackgroundChild::stop() {
  if (input_ >= 0) {
    close(input_);
    input_ = -1;
  }
  if (!stopped_) {
    stopped_ = true;
    kill(pid_, SIGTERM);
    std::unique_lock lock(mutex_);
    if (!changed_.wait_for(lock, kPatience, [&] { return ended_; })) {
      kill(pid_, SIGKILL);
    }
    lock.unlock();
    int status = 0;
    waitpid(pid_, &status, 0);
    reader_.join();
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  return status_;
}

}  // namespace kq::test
