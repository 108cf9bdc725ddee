// kqvisitor-chat: the visitor's side of a website chat, in a terminal.

#include "Command.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <algorithm>
#include <iostream>

namespace kqchat {

namespace {

constexpr Command kCommands[] = {
    {"config", "print the settings in use", runConfig},
    {"call", "call an operation of the JSON chat service", runCall},
    {"soap", "send an offline message or ask for the languages (SOAP service)", runSoap},
    {"upload", "upload a file of up to 6 MB and print its link", runUpload},
    {"xmpp", "log in on the XMPP server and chat in a room", runXMPP},
    {"chat", "chat with an operator of a website, as its visitor", runChat},
};

void printUsage(std::ostream& out) {
  out << "usage: kqvisitor-chat COMMAND [ARGUMENTS...]\n\ncommands:\n";
  for (const auto& command : kCommands) {
    out << "  " << command.name << std::string(10 - std::min<size_t>(command.name.size(), 9), ' ')
        << command.summary << "\n";
  }
  out << "\nSettings come from the JSON file named in KQVISITOR_CONFIG.\n"
      << "Run 'kqvisitor-chat COMMAND --help' for a command's arguments.\n";
}

}  // namespace

int usageError(std::string_view usage, std::string_view problem) {
  std::cerr << "kqvisitor-chat: " << problem << "\nusage: kqvisitor-chat " << usage
            << "\n(see 'kqvisitor-chat " << usage.substr(0, usage.find(' ')) << " --help')\n";
  return kExitUsage;
}

bool wantsHelp(const std::vector<std::string>& arguments) {
  for (const auto& argument : arguments) {
    if (argument == "--help" || argument == "-h") {
      return true;
    }
  }
  return false;
}

}  // namespace kqchat

int main(int argc, char** argv) {
  using namespace kqchat;
  if (argc < 2 || std::string_view(argv[1]) == "--help" || std::string_view(argv[1]) == "-h") {
    printUsage(argc < 2 ? std::cerr : std::cout);
    return argc < 2 ? kExitUsage : kExitOk;
  }
  if (std::string_view(argv[1]) == "--version") {
    std::cout << reinterpret_cast<const char*>(KQVisitorCoreVersionString) << "\n";
    return kExitOk;
  }
  const std::vector<std::string> arguments(argv + 2, argv + argc);
  for (const auto& command : kCommands) {
    if (command.name != argv[1]) {
      continue;
    }
    // Settings problems are reported here, before any command talks to a service.
    if (!wantsHelp(arguments)) {
      try {
        kq::KQVisitorConfig::setShared(kq::KQVisitorConfig::fromEnvironment());
      } catch (const kq::KQVisitorConfig::Error& error) {
        std::cerr << "kqvisitor-chat: " << error.what()
                  << "\nFix the file named in KQVISITOR_CONFIG, or unset it to use the defaults.\n";
        return kExitUsage;
      }
    }
    return command.run(arguments);
  }
  std::cerr << "kqvisitor-chat: unknown command \"" << argv[1] << "\"\n";
  printUsage(std::cerr);
  return kExitUsage;
}
