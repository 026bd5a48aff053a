// PackageManager: drives opkg against a target root, the directory where the inactive root
// filesystem is mounted.
//
// It owns an opkg configuration file (a TemporaryFile written when the object is created and
// deleted with it), the list of installed packages last read from the target's status file, and a
// flag that caches the outcome of the last installed-file verification. Installs run the running
// system's "/usr/bin/opkg" with the target as offline root; removal, configuration and the sanity
// check run the target's own programs under chroot with the host's /proc, /sys, /dev and /tmp
// bound in for the duration of the call only. Operations answer with bool and log the reason;
// the only exceptions are the child-process layer's ("Failed to fork", "Failed to waitpid"), and
// every bind mount and scratch directory is released before they leave.
#ifndef SELVANE_PACKAGEMANAGER_H
#define SELVANE_PACKAGEMANAGER_H

#include <selvane/Export.h>

#include <selvane/TemporaryFile.h>

#include <map>
#include <string>

namespace selvane {

class SELVANE_EXPORT PackageManager {
 public:
  // Writes the opkg configuration file; reads nothing from the target yet.
  explicit PackageManager(const std::string& root);
  PackageManager(const PackageManager&) = delete;
  PackageManager& operator=(const PackageManager&) = delete;

  // Rereads root + "/var/lib/opkg/status" (under the target's opkg lock) into the installed list.
  void refreshInstalledPackages();
  // Package name -> version, as of the last refresh. Install and remove do not update it.
  const std::map<std::string, std::string>& getInstalledPackages() const;

  // Installs one package file with the host's opkg and the target as offline root. timeout is in
  // seconds (0 or less: none), as for every operation below.
  [[nodiscard]] bool installPackage(const std::string& packagePath, int timeout);
  // Removes one package with the target's own opkg; true when it exited with 0.
  [[nodiscard]] bool removePackage(const std::string& packageName, int timeout);
  // Configures the base packages, then everything, with up to three attempts of the latter.
  [[nodiscard]] bool configurePackages(int timeout);
  // Checks every installed package's files against its sha256sums list; with removeBad, failing
  // packages are removed. The outcome is cached until the target changes, unless force is set.
  [[nodiscard]] bool verifyPackages(bool removeBad, bool force);
  // Runs the target's "/usr/local/bin/ota-sanity-check.sh" if it has one; true when absent or 0.
  [[nodiscard]] bool performSanityCheck(int timeout) const;

 private:
  std::string root;
  TemporaryFile configFile;
  std::map<std::string, std::string> installedPackages;
  bool verified;
};

}  // namespace selvane

#endif
