#include "tests/support/TestCertificates.h"

#include "tests/support/ChildProcess.h"

namespace kq::test {

TestCertificates makeTestCertificates(const std::string& folder,
                                      const std::vector<std::string>& names) {
  std::vector<std::string> arguments = {KQ_SOURCE_DIR "/scripts/make-test-certificates", folder};
  arguments.insert(arguments.end(), names.begin(), names.end());
  runOrThrow(arguments);
  return {folder + "/ca.pem", folder + "/server.pem", folder + "/server.key"};
}

}  // namespace kq::test
