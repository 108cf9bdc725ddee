// What the commands share for talking to a person: options and the terminal's input.

#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <iostream>
#include <memory>
#include <thread>
#include <vector>

namespace kqchat {

std::optional<std::string> parseOptions(const std::vector<std::string>& arguments,
                                        std::initializer_list<std::string_view> flags,
                                        const OptionTaker& take) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    std::optional<std::string> problem;
    if (std::find(flags.begin(), flags.end(), name) != flags.end()) {
      problem = take(name, {});
    } else if (i + 1 >= arguments.size()) {
      problem = name.starts_with("--") ? "\"" + name + "\" needs a value"
                                       : "unexpected argument \"" + name + "\"";
    } else {
      problem = take(name, arguments[++i]);
    }
    if (problem) {
      return problem;
    }
  }
  return std::nullopt;
}

namespace {

// How long a stopped command waits for the reader to take in what standard input still holds;
// reading what is already there takes no time, this only bounds a reader that cannot.
constexpr std::chrono::seconds kInputPatience{1};

// Standard input as its reader thread hands it to the main queue. Lines wait here until the main
// queue takes them, so that a command that stops the queue first still hears of every line that
// had been typed (and reports it unsent) instead of losing it with the queue's tasks.
struct Input {
  Input() = default;
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;
  // The last owner is the reader thread or the run that started it, whichever ends later: the
  // reader never polls a closed pipe.
  ~Input() {
    for (const int end : wake) {
      if (end >= 0) {
        ::close(end);
      }
    }
  }

  kq::Mutex mutex;
  std::condition_variable changed;
  std::vector<std::string> lines KQ_GUARDED_BY(mutex);
  bool ended KQ_GUARDED_BY(mutex) = false;        // standard input has ended
  bool endReported KQ_GUARDED_BY(mutex) = false;  // and the main queue has been told
  bool readerDone KQ_GUARDED_BY(mutex) = false;   // the reader thread has stopped reading
  std::array<int, 2> wake{-1, -1};  // written once the main queue has stopped: read what is left
};

void handOver(Input& input, std::string line) {
  kq::MutexLock lock(input.mutex);
  input.lines.push_back(std::move(line));
}

// Reads standard input line by line until it ends. Once woken through `input.wake`, it reads only
// what standard input holds at that moment, then stops.
void readInput(const std::shared_ptr<Input>& input, const std::function<void()>& arrived,
               bool prompt) {
  std::string partial;
  bool draining = false;
  // Not cleared: filled by read.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
  std::array<char, 4096> chunk;
  for (;;) {
    if (prompt && !draining && partial.empty()) {
      std::cout << "> " << std::flush;
    }
    std::array<pollfd, 2> watched = {pollfd{STDIN_FILENO, POLLIN, 0},
                                     pollfd{input->wake[0], POLLIN, 0}};
    const int ready = poll(watched.data(), watched.size(), draining ? 0 : -1);
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready == 0) {
      break;  // all that was there has been read
    }
    if (ready < 0) {
      if (!draining) {
        kq::MutexLock lock(input->mutex);
        input->ended = true;  // standard input cannot be watched: as if it had ended
      }
      break;
    }
    if (watched[1].revents != 0) {
      draining = true;
      char byte = 0;
      (void)!::read(input->wake[0], &byte, 1);
      continue;
    }
    const ssize_t count = ::read(STDIN_FILENO, chunk.data(), chunk.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      if (!partial.empty()) {
        handOver(*input, std::move(partial));  // a last line without a line end
      }
      kq::MutexLock lock(input->mutex);
      input->ended = true;
      break;
    }
    partial.append(chunk.data(), static_cast<std::size_t>(count));
    std::size_t start = 0;
    for (auto end = partial.find('\n'); end != std::string::npos; end = partial.find('\n', start)) {
      handOver(*input, partial.substr(start, end - start));
      start = end + 1;
    }
    partial.erase(0, start);
    if (start > 0 && !draining) {
      arrived();
    }
  }
  {
    kq::MutexLock lock(input->mutex);
    input->readerDone = true;
  }
  input->changed.notify_all();
  if (!draining) {
    arrived();  // the end of input
  }
}

}  // namespace

void runMainQueueWithTerminal(TerminalHandlers handlers, bool prompt) {
  // Signals are taken by a thread of their own; every thread started from here on (the
  // library's too) inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto shared = std::make_shared<TerminalHandlers>(std::move(handlers));
  const auto input = std::make_shared<Input>();
  if (pipe2(input->wake.data(), O_CLOEXEC) != 0) {
    input->wake = {-1, -1};  // then only what was handed over before the end is reported
  }
  // On the main queue: the lines the reader has handed over, then the end of input once.
  const auto deliver = [shared, input](bool includingEnd) {
    std::vector<std::string> lines;
    bool ended = false;
    {
      kq::MutexLock lock(input->mutex);
      lines.swap(input->lines);
      ended = includingEnd && input->ended && !input->endReported;
      input->endReported = input->endReported || ended;
    }
    for (auto& line : lines) {
      shared->line(std::move(line));
    }
    if (ended) {
      shared->ended();
    }
  };
  const auto& main = kq::DispatchQueue::main();
  main->async([shared] { shared->start(); });
  std::thread([input, main, deliver, prompt] {
    readInput(
        input, [main, deliver] { main->async([deliver] { deliver(true); }); }, prompt);
  }).detach();
  std::thread([shared, main, signals] {
    int received = 0;
    sigwait(&signals, &received);
    main->async([shared] { shared->interrupted(); });
  }).detach();
  main->run();

  // The command has stopped the queue. Lines standard input already held (typed before a
  // failure ended the run, say) are still given to it, so that it can report them.
  if (input->wake[1] >= 0 && ::write(input->wake[1], "x", 1) == 1) {
    const auto deadline = std::chrono::steady_clock::now() + kInputPatience;
    kq::MutexLock lock(input->mutex);
    while (!input->readerDone &&
           lock.waitUntil(input->changed, deadline) != std::cv_status::timeout) {
    }
  }
  deliver(false);
}

}  // namespace kqchat
