#include "selvane/PackageVerifierSet.h"

#include <boost/make_shared.hpp>
#include <stdexcept>

#include "KeyDirectory.h"
#include "Log.h"

namespace selvane {

PackageVerifierSet::PackageVerifierSet(const std::string& keyDirectory) {
  for (const std::string& path : KeyFiles(keyDirectory)) addKey(path);
}

PackageVerifierSet::~PackageVerifierSet() = default;

void PackageVerifierSet::addKey(const std::string& keyPath) {
  try {
    verifiers.push_back(boost::make_shared<PackageVerifier>(keyPath));
    SELVANE_LOG_D(
        "PackageVerifierSet:PackageVerifierSet:reason=success,path=%s:Able to create a "
        "verifier with this key file",
        keyPath.c_str());
  } catch (const std::runtime_error& e) {
    SELVANE_LOG_D(
        "PackageVerifierSet:PackageVerifierSet:reason=invalidKey,path=%s:Unable to "
        "create a verifier with this key file: %s ",
        keyPath.c_str(), e.what());
  }
}

bool PackageVerifierSet::verifyPackage(const std::string& packagePath) {
  for (const boost::shared_ptr<PackageVerifier>& verifier : verifiers) {
    if (verifier->verifyPackage(packagePath)) return true;
  }
  return false;
}

}  // namespace selvane
