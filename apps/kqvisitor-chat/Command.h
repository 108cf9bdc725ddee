#pragma once

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kqchat {

/// Exit statuses of kqvisitor-chat.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

/// One subcommand: `kqvisitor-chat <name> ARGS...`. `run` receives the arguments after the
/// name and returns the exit status; it prints its own --help.
struct Command {
  std::string_view name;
  std::string_view summary;
  int (*run)(const std::vector<std::string>& arguments);
};

/// Prints "usage: kqvisitor-chat <usage>" and a hint to stderr; returns kExitUsage.
int usageError(std::string_view usage, std::string_view problem);

/// True when the arguments ask for help ("--help" or "-h").
bool wantsHelp(const std::vector<std::string>& arguments);

/// Takes one option: its name and value (empty for a flag); returns what is wrong, if anything.
using OptionTaker =
    std::function<std::optional<std::string>(const std::string& name, const std::string& value)>;

/// Reads arguments of the forms "--name VALUE" and "--flag" (the names in `flags`), handing each
/// to `take` in order. Returns the first problem: a name without its value, a stray argument,
/// or what `take` said.
std::optional<std::string> parseOptions(const std::vector<std::string>& arguments,
                                        std::initializer_list<std::string_view> flags,
                                        const OptionTaker& take);

/// What a chatting command does with its terminal; each runs on the main queue.
struct TerminalHandlers {
  std::function<void()> start;                 ///< first, once
  std::function<void(std::string line)> line;  ///< a line of standard input
  std::function<void()> ended;                 ///< standard input has ended
  std::function<void()> interrupted;           ///< Ctrl-C (SIGINT) or SIGTERM
};

/// Runs the main queue on this thread until it is stopped, feeding it the lines of standard
/// input and the signals. With `prompt`, "> " is shown before each line is read. Signals are
/// blocked before `start` runs, so the threads the library starts inherit the mask.
void runMainQueueWithTerminal(TerminalHandlers handlers, bool prompt);

int runConfig(const std::vector<std::string>& arguments);
int runCall(const std::vector<std::string>& arguments);
int runSoap(const std::vector<std::string>& arguments);
int runUpload(const std::vector<std::string>& arguments);
int runXMPP(const std::vector<std::string>& arguments);
int runChat(const std::vector<std::string>& arguments);

}  // namespace kqchat
