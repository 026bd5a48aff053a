#include "selvane/PackageVerifier.h"

#include <openssl/conf.h>
#include <openssl/err.h>
#include <openssl/evp.h>

#include <stdexcept>

#include "KeyDirectory.h"
#include "Log.h"
#include "VerifierImpl.h"

const char* DEB_BINARY_FILE = "debian-binary";
const char* CONTROL_FILE = "control.tar.gz";
const char* DATA_FILE = "data.tar.gz";
const char* SIGNATURE_FILE = "signature";
const char* SHA1_DIGEST_NAME = "SHA1";

namespace {

// OpenSSL's tables are set up once when the library is loaded: the digest lookup by name
// depends on it.
__attribute__((constructor)) void PackageVerifierInit() {
  OPENSSL_config(nullptr);
  OpenSSL_add_all_digests();
  ERR_load_crypto_strings();
}

__attribute__((destructor)) void PackageVerifierFinal() { EVP_cleanup(); }

}  // namespace

namespace selvane {

void PackageVerifier::KeyDeleter::operator()(evp_pkey_st* key) const { EVP_PKEY_free(key); }

PackageVerifier::PackageVerifier(const std::string& keyPath)
    : keyPath(keyPath), publicKey(LoadPublicKey(keyPath)) {}

PackageVerifier::~PackageVerifier() = default;

bool PackageVerifier::verifyPackage(const std::string& packagePath) {
  try {
    VerifierImpl impl(publicKey.get(), packagePath);
    for (const char* member : {DEB_BINARY_FILE, CONTROL_FILE, DATA_FILE}) {
      if (!impl.addFileToVerify(member)) {
        SELVANE_LOG_D("PackageVerifier:FailedToAddFile:file=%s:", member);
        return false;
      }
    }
    return impl.finishAndVerify();
  } catch (const std::runtime_error& e) {
    SELVANE_LOG_E(
        "PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,package=%s,"
        "detail=%s:",
        packagePath.c_str(), e.what());
    return false;
  }
}

}  // namespace selvane
