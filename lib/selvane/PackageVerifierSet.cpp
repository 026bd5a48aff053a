#include "selvane/PackageVerifierSet.h"

#include <boost/filesystem.hpp>
#include <boost/make_shared.hpp>
#include <stdexcept>

#include "Log.h"

namespace selvane {
namespace {

namespace fs = boost::filesystem;

bool isUsableDirectory(const std::string& path) {
  boost::system::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error || status.type() == fs::file_not_found) return false;
  return fs::is_directory(path, error);
}

}  // namespace

PackageVerifierSet::PackageVerifierSet(const std::string& keyDirectory) {
  const std::runtime_error unusable(keyDirectory + " does not exist, or is not a directory");
  if (!isUsableDirectory(keyDirectory)) throw unusable;

  boost::system::error_code error;
  fs::directory_iterator entry(keyDirectory, error), end;
  for (; !error && entry != end; entry.increment(error)) {
    const std::string path = entry->path().string();
    boost::system::error_code statusError;
    if (fs::is_regular_file(fs::status(path, statusError))) addKey(path);
  }
  if (error) throw unusable;
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
