#include "tests/support/TestCertificates.h"

#include <spawn.h>
#include <sys/wait.h>

#include <stdexcept>

namespace kq::test {

TestCertificates makeTestCertificates(const std::string& folder,
                                      const std::vector<std::string>& names) {
  std::vector<std::string> arguments = {KQ_SOURCE_DIR "/scripts/make-test-certificates", folder};
  arguments.insert(arguments.end(), names.begin(), names.end());
  std::vector<char*> argv;
  argv.reserve(arguments.size() + 1);
  for (auto& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);
  pid_t child = 0;
  if (posix_spawn(&child, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("cannot run " + arguments[0]);
  }
  int status = 0;
  if (waitpid(child, &status, 0) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error(arguments[0] + " failed for " + folder);
  }
  return {folder + "/ca.pem", folder + "/server.pem", folder + "/server.key"};
}

}  // namespace kq::test
