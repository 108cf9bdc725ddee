#include "SandboxCertificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <stdexcept>

namespace kqsandbox {

namespace {

namespace fs = std::filesystem;

struct KeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct CertificateFree {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FileClose {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
using Certificate = std::unique_ptr<X509, CertificateFree>;

constexpr long kValidSeconds = 365L * 24 * 60 * 60;

void check(bool ok, const char* what) {
  if (!ok) {
    throw std::runtime_error(std::string("cannot make the sandbox's TLS certificates: ") + what);
  }
}

Key newKey() {
  Key key(EVP_RSA_gen(2048));
  check(key != nullptr, "no RSA key");
  return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value);
  check(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value);
  X509_EXTENSION_free(extension);
}

// A certificate for `key` named `commonName`; self-signed without an issuer.
Certificate newCertificate(EVP_PKEY* key, const char* commonName, long serial, X509* issuer,
                           EVP_PKEY* issuerKey) {
  Certificate certificate(X509_new());
  check(certificate != nullptr, "no certificate");
  X509* made = certificate.get();
  X509_set_version(made, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(made), serial);
  X509_gmtime_adj(X509_getm_notBefore(made), -60);
  X509_gmtime_adj(X509_getm_notAfter(made), kValidSeconds);
  X509_set_pubkey(made, key);
  X509_NAME* name = X509_get_subject_name(made);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  X509_set_issuer_name(made, issuer != nullptr ? X509_get_subject_name(issuer) : name);
  X509* signer = issuer != nullptr ? issuer : made;
  if (issuer == nullptr) {
    addExtension(made, signer, NID_basic_constraints, "critical,CA:TRUE");
    addExtension(made, signer, NID_key_usage, "critical,keyCertSign,cRLSign");
  } else {
    addExtension(made, signer, NID_basic_constraints, "CA:FALSE");
    addExtension(made, signer, NID_subject_alt_name, "IP:127.0.0.1,DNS:localhost");
    addExtension(made, signer, NID_ext_key_usage, "serverAuth");
  }
  check(X509_sign(made, issuerKey != nullptr ? issuerKey : key, EVP_sha256()) > 0, "signing");
  return certificate;
}

void write(const fs::path& path, X509* certificate, EVP_PKEY* key) {
  std::unique_ptr<std::FILE, FileClose> file(std::fopen(path.c_str(), "w"));
  check(file != nullptr, "cannot write in the data folder");
  if (certificate != nullptr) {
    check(PEM_write_X509(file.get(), certificate) == 1, "cannot write a certificate");
  }
  if (key != nullptr) {
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write);
    check(PEM_write_PrivateKey(file.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1,
          "cannot write a key");
  }
}

}  // namespace

SandboxCertificates SandboxCertificates::inFolder(const fs::path& folder) {
  fs::create_directories(folder);
  SandboxCertificates files{(folder / "ca.pem").string(), (folder / "server.pem").string(),
                            (folder / "server.key").string()};
  if (fs::exists(files.caFile) && fs::exists(files.certFile) && fs::exists(files.keyFile)) {
    return files;
  }
  const Key authorityKey = newKey();
  const Certificate authority =
      newCertificate(authorityKey.get(), "kqvisitor-sandbox CA", 1, nullptr, nullptr);
  const Key serverKey = newKey();
  const Certificate server =
      newCertificate(serverKey.get(), "127.0.0.1", 2, authority.get(), authorityKey.get());
  write(files.caFile, authority.get(), nullptr);
  write(files.certFile, server.get(), nullptr);
  write(files.keyFile, nullptr, serverKey.get());
  return files;
}

}  // namespace kqsandbox
