// What the commands share for talking to a person: options and the terminal's input.

#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <pthread.h>
#include <algorithm>
#include <csignal>
#include <iostream>
#include <memory>
#include <thread>

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

void runMainQueueWithTerminal(TerminalHandlers handlers, bool prompt) {
  // Signals are taken by a thread of their own; every thread started from here on (the
  // library's too) inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  const auto shared = std::make_shared<TerminalHandlers>(std::move(handlers));
  const auto& main = kq::DispatchQueue::main();
  main->async([shared] { shared->start(); });
  std::thread([shared, main, prompt] {
    for (std::string line;;) {
      if (prompt) {
        std::cout << "> " << std::flush;
      }
      if (!std::getline(std::cin, line)) {
        break;
      }
      main->async([shared, line] { shared->line(line); });
    }
    main->async([shared] { shared->ended(); });
  }).detach();
  std::thread([shared, main, signals] {
    int received = 0;
    sigwait(&signals, &received);
    main->async([shared] { shared->interrupted(); });
  }).detach();
  main->run();
}

}  // namespace kqchat
