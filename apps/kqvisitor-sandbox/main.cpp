// kqvisitor-sandbox: the chat service on one machine, for trying and testing the visitor's side.

#include "OperatorAgent.h"
#include "OperatorScript.h"
#include "ProsodyProcess.h"
#include "SandboxCertificates.h"
#include "SandboxConsole.h"
#include "SandboxFixture.h"
#include "SandboxServer.h"
#include "SandboxStore.h"

#include <KQVisitorCore/Platform/DispatchQueue.h>
#include <KQVisitorCore/Platform/Log.h>
#include <KQVisitorCore/Platform/detail/ThreadSafety.h>

#include <nlohmann/json.hpp>

#include <pthread.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kUsage =
    "usage: kqvisitor-sandbox [--data DIR] [--fixture FILE] [--port PORT] [--xmpp-port PORT] "
    "[--poll-interval SECONDS] [--console-keepalive SECONDS] [--plain] [--operator-console]";

struct Options {
  std::optional<std::string> data;
  std::optional<std::string> fixture;
  int port = 0;
  int xmppPort = 0;
  double pollInterval = 2.0;
  double consoleKeepAlive = 15.0;
  bool plain = false;
  bool operatorConsole = false;
};

void printHelp() {
  std::cout
      << kUsage << "\n\n"
      << "Runs a local stand-in for the chat service that the visitor library talks to: the\n"
      << "JSON chat service (production and beta paths), the SOAP management service and the\n"
      << "file upload service on 127.0.0.1, with its data in SQLite, and an XMPP server\n"
      << "(Prosody) where each online operator of the fixture is logged in. Operators answer\n"
      << "from the fixture's script, in XMPP rooms and over HTTP polling alike.\n\n"
      << "  --data DIR             keep the database and settings in DIR (made when missing);\n"
      << "                         without it a temporary folder is used and removed at the end\n"
      << "  --fixture FILE         seed a new database from FILE (JSON: websites, operators,\n"
      << "                         replies, endAfter); without it a built-in shop.example\n"
      << "  --port PORT            serve HTTP on PORT (default: a free port)\n"
      << "  --xmpp-port PORT       run the XMPP server on PORT (default: a free port)\n"
      << "  --poll-interval SECS   the library's HTTP poll interval written to the settings\n"
      << "  --console-keepalive SECS  how often an open console page hears from the sandbox\n"
      << "                         (default 15); a closed page is noticed by then\n"
      << "  --plain                serve plain HTTP and XMPP without TLS; by default both use\n"
      << "                         a certificate the sandbox makes (its authority: "
         "DIR/tls/ca.pem)\n\n"
      << "  --operator-console     answer as a person from this terminal: each line typed goes\n"
      << "                         into the chat opened last (\"/end\" ends it); no script\n\n"
      << "The operator console, a page for a browser, is at ORIGIN/console/ (printed at\n"
      << "start-up): sign in with an operator's id and password from the fixture (built-in:\n"
      << "42 / secret) to see its chats live, answer them, end them, and go online or offline\n"
      << "for new chats; while its page is open, the script stays quiet for that operator.\n\n"
      << "Once ready it prints 'ready' and the settings file to export as KQVISITOR_CONFIG,\n"
      << "then one line per request and chat event. Stops on Ctrl-C, SIGTERM or SIGHUP.\n";
}

std::optional<std::string> parse(const std::vector<std::string>& arguments, Options& options) {
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& name = arguments[i];
    if (name == "--plain" || name == "--operator-console") {
      (name == "--plain" ? options.plain : options.operatorConsole) = true;
      continue;
    }
    if (i + 1 >= arguments.size()) {
      return "\"" + name + "\" needs a value";
    }
    const std::string& value = arguments[++i];
    char* end = nullptr;
    if (name == "--data") {
      options.data = value;
    } else if (name == "--fixture") {
      options.fixture = value;
    } else if (name == "--port" || name == "--xmpp-port") {
      const long port = std::strtol(value.c_str(), &end, 10);
      if (value.empty() || *end != '\0' || port < 0 || port > 65535) {
        return name + " takes a port from 0 to 65535, not \"" + value + "\"";
      }
      (name == "--port" ? options.port : options.xmppPort) = static_cast<int>(port);
    } else if (name == "--poll-interval" || name == "--console-keepalive") {
      double& seconds = name == "--poll-interval" ? options.pollInterval : options.consoleKeepAlive;
      seconds = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || !(seconds > 0) || seconds > 3600) {
        return name + " takes seconds above 0 and at most 3600, not \"" + value + "\"";
      }
    } else {
      return "unknown argument \"" + name + "\"";
    }
  }
  return std::nullopt;
}

kq::Mutex outputMutex;  // one writer of the log and the terminal at a time

// One line of the log, with the time.
void logLine(const std::string& line) {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  char stamp[16];
  std::strftime(stamp, sizeof stamp, "%H:%M:%S", &local);
  kq::MutexLock lock(outputMutex);
  std::cout << stamp << " " << line << std::endl;
}

int fail(const std::string& why) {
  std::cerr << "kqvisitor-sandbox: " << why << std::endl;
  return 1;
}

// The data folder, made and checked writable; a temporary one without --data.
fs::path dataFolder(const Options& options) {
  fs::path folder;
  if (options.data) {
    folder = *options.data;
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) {
      throw std::runtime_error("cannot make the data folder " + folder.string() + ": " +
                               error.message() + ". Choose another with --data.");
    }
  } else {
    std::string pattern = (fs::temp_directory_path() / "kqvisitor-sandbox-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::runtime_error("cannot make a temporary data folder; give one with --data.");
    }
    folder = pattern;
  }
  const fs::path probe = folder / ".writable";
  if (!std::ofstream(probe).good()) {
    throw std::runtime_error("cannot write in the data folder " + folder.string() +
                             ": check its permissions, or choose another with --data.");
  }
  fs::remove(probe);
  return fs::absolute(folder);
}

kqsandbox::SandboxFixture loadFixture(const Options& options) {
  if (!options.fixture) {
    return kqsandbox::SandboxFixture::builtIn();
  }
  std::ifstream file(*options.fixture);
  if (!file) {
    throw std::runtime_error("cannot read the fixture " + *options.fixture);
  }
  std::ostringstream text;
  text << file.rdbuf();
  try {
    return kqsandbox::SandboxFixture::fromJSON(text.str());
  } catch (const kqsandbox::SandboxFixture::Error& error) {
    throw std::runtime_error("the fixture " + *options.fixture +
                             " cannot be used: " + error.what());
  }
}

// The settings that point the library at this sandbox.
void writeSettings(const fs::path& file, const std::string& origin, int xmppPort,
                   const std::string& caFile, const fs::path& folder, const Options& options) {
  nlohmann::ordered_json settings = {
      {"jsonServiceProductionOrigin", origin},
      {"jsonServiceBetaOrigin", origin},
      {"soapServiceOrigin", origin},
      {"uploadServiceOrigin", origin},
      {"xmppHost", "127.0.0.1"},
      {"xmppPort", xmppPort},
      {"reachabilityHost", "127.0.0.1"},
      {"httpPollInterval", options.pollInterval},
      {"userDefaultsPath", (folder / "visitor-defaults.json").string()},
  };
  if (!caFile.empty()) {
    settings["caFile"] = caFile;
  }
  std::ofstream out(file);
  out << settings.dump(2) << "\n";
  if (!out) {
    throw std::runtime_error("cannot write the settings file " + file.string());
  }
}

// Runs `task` on the main queue, where the operators' agents live, and answers its result, or
// `late` when the queue has not run it within a few seconds (it is stopping).
template <class Task, class Result>
Result onMainQueue(const std::shared_ptr<kq::DispatchQueue>& main, Task task, Result late) {
  auto result = std::make_shared<std::promise<Result>>();
  auto future = result->get_future();
  main->async([result, task = std::move(task)] { result->set_value(task()); });
  return future.wait_for(std::chrono::seconds(5)) == std::future_status::ready ? future.get()
                                                                               : late;
}

// The console's answer (or end notice) into an XMPP chat, through the operator's agent.
kqsandbox::SandboxConsole::Delivery deliver(
    const std::vector<std::shared_ptr<kqsandbox::OperatorAgent>>& agents,
    const std::string& operatorId, const std::string& chatId, const std::string& text) {
  using Delivery = kqsandbox::SandboxConsole::Delivery;
  for (const auto& agent : agents) {
    if (agent->person().id != operatorId || !agent->hasChat(chatId)) {
      continue;
    }
    const bool said =
        text == kqsandbox::OperatorScript::kEndText ? agent->end(chatId) : agent->say(chatId, text);
    return said ? Delivery::Said : Delivery::NotInRoom;
  }
  return Delivery::NotXMPP;
}

// A line of the terminal's operator console: said in the chat opened last, by its operator.
void operatorSays(const std::vector<std::shared_ptr<kqsandbox::OperatorAgent>>& agents,
                  kqsandbox::SandboxStore& store, const std::string& line) {
  const auto chat = store.latestOpenChat();
  if (!chat) {
    logLine("console: no chat is open; wait for a visitor");
    return;
  }
  const bool ending = line == "/end";
  const std::string text = ending ? kqsandbox::OperatorScript::kEndText : line;
  bool said = false;
  for (const auto& agent : agents) {
    said = said || agent->say(chat->id, text);
  }
  if (!said) {  // no room: the visitor polls over HTTP
    store.addMessage(chat->id, "operator", text);
    const auto person = store.operatorById(chat->operatorId);
    logLine("chat " + chat->id + ": " + (person ? person->name : "operator") + ": " + text);
  }
  if (ending) {
    store.endChat(chat->id);
    logLine("chat " + chat->id + " ended by the operator");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  for (const auto& argument : arguments) {
    if (argument == "--help" || argument == "-h") {
      printHelp();
      return 0;
    }
  }
  Options options;
  if (const auto problem = parse(arguments, options)) {
    std::cerr << "kqvisitor-sandbox: " << *problem << "\n" << kUsage << "\n";
    return 2;
  }
  // Signals are taken below; every thread started from here on inherits the mask.
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGHUP);  // its terminal closing (a tmux pane) stops it cleanly too
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);

  fs::path folder;
  try {
    folder = dataFolder(options);
  } catch (const std::exception& error) {
    return fail(error.what());
  }
  const bool temporary = !options.data;
  const auto cleanUp = [&] {
    if (temporary) {
      std::error_code ignored;
      fs::remove_all(folder, ignored);
    }
  };
  int status = 0;
  try {
    const auto fixture = loadFixture(options);
    kqsandbox::SandboxStore store((folder / "sandbox.sqlite").string(), fixture);
    auto [replies, endAfter] = store.script();
    if (options.operatorConsole) {
      replies.clear();  // a person answers
      endAfter = 0;
    }
    const kqsandbox::OperatorScript script{replies, endAfter};
    // The library's own diagnostics (the operators' XMPP) go to a file, not the terminal.
    std::ofstream libraryLog(folder / "library.log", std::ios::app);
    kq::setLogSink([&libraryLog](std::string_view line) {
      kq::MutexLock lock(outputMutex);
      libraryLog << line << std::endl;
    });

    std::optional<kqsandbox::SandboxCertificates> certificates;
    if (!options.plain) {
      certificates = kqsandbox::SandboxCertificates::inFolder(folder / "tls");
    }
    kqsandbox::ProsodyProcess::Options xmpp;
    xmpp.folder = folder / "prosody";
    xmpp.port = options.xmppPort;
    if (certificates) {
      xmpp.tls = std::pair(certificates->certFile, certificates->keyFile);
    }
    // Every operator is on the XMPP server, so that one who goes online at the console can
    // take chats; the pre-chat check offers only those online.
    std::vector<kqsandbox::SandboxOperator> people;
    for (const auto& website : fixture.websites) {
      for (const auto& person : website.operators) {
        if (const auto stored = store.operatorById(person.id)) {
          xmpp.accounts[stored->id] = stored->password;
          people.push_back(*stored);
        }
      }
    }
    kqsandbox::ProsodyProcess prosody(xmpp, logLine);
    logLine("XMPP server (Prosody) on 127.0.0.1:" + std::to_string(prosody.port()));

    std::optional<kqsandbox::SandboxServer::TLS> https;
    if (certificates) {
      https = kqsandbox::SandboxServer::TLS{certificates->certFile, certificates->keyFile};
    }
    const auto& main = kq::DispatchQueue::main();
    std::vector<std::shared_ptr<kqsandbox::OperatorAgent>> agents;
    for (const auto& person : people) {
      agents.push_back(std::make_shared<kqsandbox::OperatorAgent>(person, store, script, logLine));
    }
    kqsandbox::SandboxConsole console(
        store,
        [main, &agents](const std::string& operatorId, const std::string& chatId,
                        const std::string& text) {
          return onMainQueue(
              main,
              [&agents, operatorId, chatId, text] {
                return deliver(agents, operatorId, chatId, text);
              },
              kqsandbox::SandboxConsole::Delivery::NotInRoom);
        },
        logLine,
        std::chrono::duration_cast<std::chrono::milliseconds>(
            std::chrono::duration<double>(options.consoleKeepAlive)));
    kqsandbox::SandboxServer server(store, script, https, logLine);
    server.mountConsole(console);
    server.start(options.port);
    const fs::path settings = folder / "config.json";
    writeSettings(settings, server.origin(), prosody.port(),
                  certificates ? certificates->caFile : std::string(), folder, options);
    logLine("chat service on " + server.origin() + ", data in " + folder.string());
    logLine("settings for the library: export KQVISITOR_CONFIG=" + settings.string());

    main->async([&agents, port = prosody.port(), console = server.origin() + "/console/"] {
      for (const auto& agent : agents) {
        agent->start(port);
      }
      logLine("operator console on " + console + " (sign in as an operator of the fixture)");
      logLine("ready");
    });
    if (options.operatorConsole) {
      std::thread([main, &agents, &store] {
        for (std::string line; std::getline(std::cin, line);) {
          main->async([&agents, &store, line] { operatorSays(agents, store, line); });
        }
      }).detach();
    }
    std::thread([main, signals] {
      int received = 0;
      sigwait(&signals, &received);
      main->async([main, received] {
        logLine(std::string("stopping (SIG") + sigabbrev_np(received) + ")");
        main->stop();
      });
    }).detach();
    main->run();
    for (const auto& agent : agents) {
      agent->stop();
    }
    server.stop();
    kq::setLogSink(nullptr);
  } catch (const std::exception& error) {
    status = fail(error.what());
  }
  cleanUp();
  return status;
}
