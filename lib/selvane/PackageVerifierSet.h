// PackageVerifierSet: trusts every public key of one key directory.
//
// The constructor tries each regular file of the directory (symbolic links followed, no
// recursion, no name filter) as a PEM public key and keeps one PackageVerifier per key that
// loads; files that are not keys are logged at debug level and skipped. A package is accepted
// when any of the keys verifies it. Only an unusable directory throws (std::runtime_error).
#ifndef SELVANE_PACKAGEVERIFIERSET_H
#define SELVANE_PACKAGEVERIFIERSET_H

#include <selvane/Export.h>

#include <selvane/PackageVerifier.h>

#include <boost/shared_ptr.hpp>
#include <deque>
#include <string>

namespace selvane {

class SELVANE_EXPORT PackageVerifierSet {
 public:
  // Throws std::runtime_error with keyDirectory followed by " does not exist, or is not a
  // directory" when the directory cannot be used.
  explicit PackageVerifierSet(const std::string& keyDirectory);
  ~PackageVerifierSet();

  // Adds a verifier for one PEM public key file; a file that is no such key is logged and skipped.
  void addKey(const std::string& keyPath);

  // True when at least one key verifies the package.
  [[nodiscard]] bool verifyPackage(const std::string& packagePath);

 private:
  std::deque<boost::shared_ptr<PackageVerifier>> verifiers;
};

}  // namespace selvane

#endif
