#pragma once

#include <string>
#include <vector>

namespace kq::test {

/// A throw-away certificate authority and a server certificate it signed, made with the
/// openssl command by scripts/make-test-certificates.
struct TestCertificates {
  std::string caFile;    ///< PEM of the authority: what a client trusts
  std::string certFile;  ///< PEM of the server certificate
  std::string keyFile;   ///< PEM of the server's private key
};

/// Makes the files in `folder` for a server known by `names` (host names or IP addresses; the
/// client checks the host it connects to against them). Throws std::runtime_error on failure.
TestCertificates makeTestCertificates(const std::string& folder,
                                      const std::vector<std::string>& names);

}  // namespace kq::test
