// PackageVerifier: checks opkg package files against one trusted public key.
//
// A package is an ar archive with the members "debian-binary", "control.tar.gz", "data.tar.gz"
// and "signature". The signature is the raw signature (PKCS #1 v1.5 for an RSA key) of the SHA-1
// digest over the data of the first three members, in that order; ar headers and padding are not
// covered. The verifier owns its key and keeps no state between packages, so one object may check
// any number of packages, also from several threads.
//
// Loading the key throws std::runtime_error; verifyPackage() never throws std::runtime_error: it
// logs the reason and answers false.
#ifndef SELVANE_PACKAGEVERIFIER_H
#define SELVANE_PACKAGEVERIFIER_H

#include <selvane/Export.h>

#include <memory>
#include <string>

// Member names and digest name, exported with C linkage.
extern "C" {
SELVANE_EXPORT extern const char* DEB_BINARY_FILE;   // "debian-binary"
SELVANE_EXPORT extern const char* CONTROL_FILE;      // "control.tar.gz"
SELVANE_EXPORT extern const char* DATA_FILE;         // "data.tar.gz"
SELVANE_EXPORT extern const char* SIGNATURE_FILE;    // "signature"
SELVANE_EXPORT extern const char* SHA1_DIGEST_NAME;  // "SHA1"
}

struct evp_pkey_st;

namespace selvane {

using ::CONTROL_FILE;
using ::DATA_FILE;
using ::DEB_BINARY_FILE;
using ::SHA1_DIGEST_NAME;
using ::SIGNATURE_FILE;

class SELVANE_EXPORT PackageVerifier {
 public:
  // Loads a PEM public key (SubjectPublicKeyInfo). Throws std::runtime_error with "Unable to find
  // the public key file" when keyPath is not a regular file and "Unable to load the public key
  // file" when it holds no such key (a certificate or a private key does not do).
  explicit PackageVerifier(const std::string& keyPath);
  ~PackageVerifier();
  PackageVerifier(const PackageVerifier&) = delete;
  PackageVerifier& operator=(const PackageVerifier&) = delete;

  // True only when the package's signature verifies with this key.
  [[nodiscard]] bool verifyPackage(const std::string& packagePath);

 private:
  struct KeyDeleter {
    void operator()(evp_pkey_st* key) const;
  };

  std::string keyPath;
  std::unique_ptr<evp_pkey_st, KeyDeleter> publicKey;
};

}  // namespace selvane

#endif
