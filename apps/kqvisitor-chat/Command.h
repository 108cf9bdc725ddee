#pragma once

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

int runConfig(const std::vector<std::string>& arguments);
int runCall(const std::vector<std::string>& arguments);
int runSoap(const std::vector<std::string>& arguments);
int runUpload(const std::vector<std::string>& arguments);
int runXMPP(const std::vector<std::string>& arguments);
int runChat(const std::vector<std::string>& arguments);

}  // namespace kqchat
