#pragma once

#include <filesystem>
#include <string>

namespace kqsandbox {

/// The sandbox's own TLS identity: a certificate authority made for it and a server
/// certificate for 127.0.0.1 and localhost signed by that authority, as PEM files in a folder.
/// Files made before are used again, so that clients keep trusting a sandbox that restarts.
struct SandboxCertificates {
  std::string caFile;    ///< what clients trust (the library's caFile)
  std::string certFile;  ///< the server's certificate
  std::string keyFile;   ///< the server's private key

  /// Makes the files in `folder`, or takes those already there. Throws std::runtime_error.
  static SandboxCertificates inFolder(const std::filesystem::path& folder);
};

}  // namespace kqsandbox
