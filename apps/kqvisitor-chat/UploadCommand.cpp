#include "Command.h"
#include "ServiceOutput.h"

#include <KQVisitorCore/KQVisitorCore.h>

#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

namespace kqchat {

namespace {

constexpr std::string_view kUsage = "upload FILE [--name NAME]";

void printHelp() {
  std::cout << "usage: kqvisitor-chat " << kUsage << "\n\n"
            << "Uploads FILE (at most 6 MB) to the file upload service and prints a JSON line:\n"
            << "  {\"callback\":\"success\",\"link\":\"...\"}\n"
            << "  {\"callback\":\"failure\",\"message\":\"...\"}\n"
            << "A progress bar goes to stderr when it is a terminal.\n\n"
            << "  --name NAME   the file name sent with the file (default: FILE's own name)\n";
}

// Draws "[#####     ]  50%  1.5 of 3.0 MB" over the previous bar.
void drawProgress(std::int64_t sent, std::int64_t total) {
  constexpr int kWidth = 30;
  const double fraction = total > 0 ? static_cast<double>(sent) / static_cast<double>(total) : 1;
  const int filled = static_cast<int>(fraction * kWidth);
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.append(static_cast<std::size_t>(kWidth - filled), ' ');
  std::fprintf(stderr, "\r[%s] %3d%%  %.1f of %.1f MB", bar.c_str(),
               static_cast<int>(fraction * 100), static_cast<double>(sent) / 1048576.0,
               static_cast<double>(total) / 1048576.0);
  std::fflush(stderr);
}

}  // namespace

// Uploads one file through the web service.
int runUpload(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    printHelp();
    return kExitOk;
  }
  std::optional<std::string> path;
  std::optional<std::string> name;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (arguments[i] == "--name") {
      if (i + 1 >= arguments.size()) {
        return usageError(kUsage, "--name needs a file name");
      }
      name = arguments[++i];
    } else if (arguments[i].starts_with("--")) {
      return usageError(kUsage, "unknown option \"" + arguments[i] + "\"");
    } else if (!path) {
      path = arguments[i];
    } else {
      return usageError(kUsage, "unexpected argument \"" + arguments[i] + "\"");
    }
  }
  if (!path) {
    return usageError(kUsage, "missing FILE");
  }
  std::ifstream file(*path, std::ios::binary);
  if (!file || std::filesystem::is_directory(*path)) {
    return usageError(kUsage, "cannot read \"" + *path + "\"");
  }
  // One byte past the largest upload is enough for the library to refuse a file as too large,
  // so reading stops there: /dev/zero or a FIFO that never ends cannot fill the memory.
  constexpr auto kReadLimit =
      static_cast<std::size_t>(kq::KQVisitorWebService::kMaximumUploadMegabytes * 1048576.0) + 1;
  std::vector<std::uint8_t> bytes(kReadLimit);
  file.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(kReadLimit));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  const nlohmann::ordered_json parameters = {
      {"fileData", nlohmann::ordered_json::binary(bytes)},
      {"fileName", name.value_or(std::filesystem::path(*path).filename().string())}};

  const bool showProgress = isatty(STDERR_FILENO) == 1;
  bool drewProgress = false;  // touched on the session's thread only, read after it is done
  Completion finished;
  bool succeeded = false;
  kq::KQVisitorWebService::sharedInstance().uploadFile(
      parameters,
      [&](const std::string& link) {
        if (drewProgress) {
          std::fputc('\n', stderr);
        }
        printJSONLine({{"callback", "success"}, {"link", link}});
        succeeded = true;
        finished.signal();
      },
      [&](const std::string& message) {
        if (drewProgress) {
          std::fputc('\n', stderr);
        }
        printJSONLine({{"callback", "failure"}, {"message", message}});
        finished.signal();
      },
      [&](std::int64_t sent, std::int64_t total) {
        if (showProgress) {
          drawProgress(sent, total);
          drewProgress = true;
        }
      });
  finished.wait();
  return succeeded ? kExitOk : kExitFailure;
}

}  // namespace kqchat
