#include "selvane/PackageManager.h"

#include <selvane/BindMount.h>
#include <selvane/ChrootExecutor.h>
#include <selvane/Executor.h>
#include <selvane/FileUtils.h>
#include <selvane/RecursiveRemovalDirectory.h>
#include <sys/stat.h>
#include <unistd.h>
#include <util/ScopedFileLock.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <stdexcept>
#include <vector>

#include "Log.h"

namespace selvane {
namespace {

// Paths below the target root.
const char kLockPath[] = "/var/lib/opkg/lock";
const char kStatusPath[] = "/var/lib/opkg/status";
const char kListsPath[] = "/var/lib/opkg/lists";
const char kInfoPath[] = "/var/lib/opkg/info/";
const char* const kOpkgDirectories[] = {"/var", "/var/lib", "/var/lib/opkg"};
const char kSanityCheckScript[] = "/usr/local/bin/ota-sanity-check.sh";

// Programs: the running system's opkg, and the target's own, resolved inside the chroot.
const char kHostOpkg[] = "/usr/bin/opkg";
const char kTargetOpkg[] = "/usr/bin/opkg-cl";

// Scratch space of the host's opkg during an install, on the running system.
const char kScratchDirectory[] = "/var/local/lib/selvane";

// The device's own architecture comes last, with the highest priority.
const char* const kOpkgConfiguration[] = {"arch all 1",
                                          "arch any 6",
                                          "arch noarch 11",
                                          "arch arm 16",
                                          "arch armv4 21",
                                          "arch armv5 26",
                                          "arch armv5-vfp 31",
                                          "arch armv5e 36",
                                          "arch armv5e-vfp 41",
                                          "arch armv6-vfp 46",
                                          "arch armv7a 51",
                                          "arch armv7a-vfp 56",
                                          "arch armv7a-vfp-neon 61",
                                          "arch vindal 66",
                                          "dest root /"};

// Configured one by one before everything else, so that the rest finds users, groups and shells.
const char* const kBasePackages[] = {"base-files", "base-passwd", "busybox", "netbase", nullptr};
const int kConfigureAttempts = 3;

// The release's own bookkeeping package, left out of the list when its stanza ends in an empty
// line.
const char kManifestPackage[] = "vindal-manifest";

// The environment of every command run inside the target root.
const char** chrootEnvironment() {
  static const char* environment[] = {
      "RUNLEVEL=X", "SHELL=/bin/sh", "USER=root",
      "PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin", nullptr};
  return environment;
}

// The host's kernel file systems and /tmp, bound into the target root for as long as it lives.
class ChrootEnvironment {
 public:
  explicit ChrootEnvironment(const std::string& root)
      : proc("/proc", root + "/proc", true),
        sys("/sys", root + "/sys", true),
        dev("/dev", root + "/dev", true),
        tmp("/tmp", root + "/tmp", true) {}
  ChrootEnvironment(const ChrootEnvironment&) = delete;
  ChrootEnvironment& operator=(const ChrootEnvironment&) = delete;

 private:
  // Declared in mount order: members go in reverse, so /tmp is unmounted first and /proc last.
  BindMount proc;
  BindMount sys;
  BindMount dev;
  BindMount tmp;
};

// The strings of one command line and the null-terminated pointer array an Executor reads them
// through; it must outlive the executor's runs.
class CommandLine {
 public:
  CommandLine(std::initializer_list<std::string> arguments) : arguments(arguments) {
    for (const std::string& argument : this->arguments) pointers.push_back(argument.c_str());
    pointers.push_back(nullptr);
  }
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  const char** argv() { return pointers.data(); }

 private:
  std::vector<std::string> arguments;
  std::vector<const char*> pointers;
};

void writeOpkgConfiguration(const std::string& path) {
  std::ofstream out(path, std::ios::out | std::ios::trunc);
  for (const char* line : kOpkgConfiguration) out << line << '\n';
  out << '\n';
  out.flush();
}

// ---- status file --------------------------------------------------------------------------

// What the reader has gathered of the current stanza. It is reset only when a stanza closes
// complete, so that the fields of an incomplete stanza carry over into the next one.
struct Stanza {
  std::string name;
  std::string version;
  bool installed = false;

  bool complete() const { return installed && !name.empty() && !version.empty(); }
};

// A Status value counts when one of its space-separated words says the files are on disk.
bool saysInstalled(const std::string& status) {
  std::vector<std::string> words;
  boost::split(words, status, boost::is_any_of(" "));
  return std::any_of(words.begin(), words.end(), [](const std::string& word) {
    return word == "installed" || word == "unpacked";
  });
}

void applyField(const std::string& line, Stanza& stanza) {
  const size_t colon = line.find(':');
  if (colon == std::string::npos) return;
  const std::string key = boost::trim_copy(line.substr(0, colon));
  const std::string value = boost::trim_copy(line.substr(colon + 1));
  if (key == "Package") {
    stanza.name = value;
  } else if (key == "Version") {
    stanza.version = value;
  } else if (key == "Status" && saysInstalled(value)) {
    stanza.installed = true;
  }
}

void readStatus(std::istream& in, std::map<std::string, std::string>& packages) {
  Stanza stanza;
  std::string line;
  while (!in.eof()) {
    // At the end of a file that ends in a line feed this yields one more, empty, line.
    if (!std::getline(in, line) && !in.eof()) break;  // a read error ends the file too
    boost::trim(line);
    if (!line.empty()) {
      applyField(line, stanza);
      continue;
    }
    if (!stanza.complete()) continue;
    if (stanza.name != kManifestPackage) packages[stanza.name] = stanza.version;
    stanza = Stanza();
  }
  // Only a last line without a line feed leaves a stanza open here; it is taken as it is.
  if (stanza.complete()) packages[stanza.name] = stanza.version;
}

// ---- install --------------------------------------------------------------------------------

bool makeOpkgDirectory(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) return true;
  if (mkdir(path.c_str(), 0755) == 0) return true;
  const int err = errno;
  if (err == EEXIST) return true;
  SELVANE_LOG_E("PackageManager:initOpkg:dir=%s,errno=%d:Failed to create dir", path.c_str(), err);
  return false;
}

// Package lists left in the target would make the host's opkg trust feeds of another system.
bool eraseListsDirectory(const std::string& lists) {
  boost::system::error_code ignored;
  if (!boost::filesystem::is_directory(lists, ignored)) return true;
  try {
    boost::filesystem::remove_all(lists);
  } catch (const boost::filesystem::filesystem_error& e) {
    SELVANE_LOG_E("PackageManager:initOpkg:dir=%s,errno=%d:Failed to erase lists dir: %s",
                  lists.c_str(), e.code().value(), e.what());
    return false;
  }
  return true;
}

bool initOpkg(const std::string& root) {
  for (const char* dir : kOpkgDirectories) {
    if (!makeOpkgDirectory(root + dir)) return false;
  }
  return eraseListsDirectory(root + kListsPath);
}

// The scratch directory, or null (logged) when it cannot be made.
std::unique_ptr<RecursiveRemovalDirectory> makeScratchDirectory() {
  try {
    return std::make_unique<RecursiveRemovalDirectory>(kScratchDirectory, true);
  } catch (const std::runtime_error&) {
    SELVANE_LOG_E("PackageManager:installError::Failed to create scratch directory");
    return nullptr;
  }
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

bool isRegularFile(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

}  // namespace

PackageManager::PackageManager(const std::string& root) : root(root), verified(false) {
  writeOpkgConfiguration(configFile.getPath());
}

// ---- package database ---------------------------------------------------------------------

void PackageManager::refreshInstalledPackages() {
  installedPackages.clear();
  try {
    util::ScopedFileLock lock(root + kLockPath, util::ScopedFileLock::LockNow);
    std::ifstream status(root + kStatusPath);
    status.peek();  // a directory opens, but cannot be read
    if (!status.is_open() || status.bad()) {
      SELVANE_LOG_W(
          "PackageManager:refreshInstalledPackages:reason=statusFileMissing:Could not find "
          "/var/lib/opkg/status in the target FS.");
      return;
    }
    readStatus(status, installedPackages);
  } catch (const util::ScopedFileLockError& e) {
    SELVANE_LOG_W("PackageManager:refreshInstalledPackages:reason=caughtScopedFileLockError:%s",
                  e.what());
  }
}

const std::map<std::string, std::string>& PackageManager::getInstalledPackages() const {
  return installedPackages;
}

// ---- install and remove -------------------------------------------------------------------

bool PackageManager::installPackage(const std::string& packagePath, int timeout) {
  SELVANE_LOG_I("PackageManager:installPackage:package=%s:Installing package", packagePath.c_str());
  if (!initOpkg(root)) {
    SELVANE_LOG_E("PackageManager:installError::Failed to set up opkg directory");
    return false;
  }
  const std::unique_ptr<RecursiveRemovalDirectory> scratch = makeScratchDirectory();
  if (!scratch) return false;

  CommandLine command{kHostOpkg,
                      "--offline-root=" + root,
                      "--conf=" + configFile.getPath(),
                      "--tmp-dir=" + scratch->getPath(),
                      "--nodeps",
                      "--force-depends",
                      "--force-downgrade",
                      "--force-maintainer",
                      "install",
                      packagePath};
  Executor executor(command.argv(), nullptr);
  verified = false;
  if (executor.waitExecute(timeout) != 0) {
    SELVANE_LOG_E("PackageManager:installError::Failed to install package");
    return false;
  }
  sync();
  return true;
}

bool PackageManager::removePackage(const std::string& packageName, int timeout) {
  SELVANE_LOG_I("PackageManager:removePackage:package=%s:Removing package", packageName.c_str());
  const ChrootEnvironment environment(root);
  CommandLine command{kTargetOpkg, "remove",          "--force-remove",
                      "--nodeps",  "--force-depends", "--force-maintainer",
                      packageName};
  ChrootExecutor executor(root, command.argv(), chrootEnvironment());
  verified = false;
  return executor.waitExecute(timeout) == 0;
}

// ---- configure ------------------------------------------------------------------------------

bool PackageManager::configurePackages(int timeout) {
  SELVANE_LOG_D("PackageManager:configurePackages::Configuring Packages");
  const ChrootEnvironment environment(root);
  for (const char* const* name = kBasePackages; *name != nullptr; ++name) {
    CommandLine command{kTargetOpkg, "configure", *name};
    ChrootExecutor executor(root, command.argv(), chrootEnvironment());
    // A base package that is missing or fails to configure stops nothing: the full run decides.
    (void)executor.waitExecute(timeout);
  }

  CommandLine command{kTargetOpkg, "configure"};
  ChrootExecutor executor(root, command.argv(), chrootEnvironment());
  verified = false;
  for (int attempt = 0; attempt < kConfigureAttempts; ++attempt) {
    if (executor.waitExecute(timeout) == 0) return true;
    SELVANE_LOG_E("PackageManager:configurePackagesFailed:attempt=%d:", attempt);
  }
  return false;
}

// ---- verification ---------------------------------------------------------------------------

bool PackageManager::verifyPackages(bool removeBad, bool force) {
  if (verified && !force) return true;
  SELVANE_LOG_I("PackageManager:verifyPackages:remove_bad=%s:Verifying package contents",
                removeBad ? "true" : "false");
  bool outcome = true;
  for (const auto& [name, version] : installedPackages) {
    const std::string sums = root + kInfoPath + name + ".sha256sums";
    if (!isRegularFile(sums)) {
      SELVANE_LOG_D(
          "PackageManager:sha256sums:reason=noshasums,package_name=%s:Failed to open sha256sums "
          "file for package, skipping",
          name.c_str());
      continue;
    }
    if (VerifySHA256SumsFile(sums, root)) {
      SELVANE_LOG_D(
          "PackageManager:sha256sums:reason=success,package_name=%s:Successfully verified shasums "
          "for package.",
          name.c_str());
      continue;
    }
    SELVANE_LOG_W(
        "PackageManager:sha256sums:reason=failure,package_name=%s:Failed to verify sha256sums for "
        "package, marking bad",
        name.c_str());
    outcome = false;
    // Without removal the first bad package decides the answer; with it, every one is checked.
    if (!removeBad) break;
    (void)removePackage(name, 0);
  }
  verified = outcome;
  return outcome;
}

// ---- sanity check ---------------------------------------------------------------------------

bool PackageManager::performSanityCheck(int timeout) const {
  SELVANE_LOG_I("PackageManager:performSanityCheck:status=starting:Running Sanity Check");
  if (!exists(root + kSanityCheckScript)) {
    SELVANE_LOG_W("PackageManager:performSanityCheck:status=skipped:Sanity Check Skipped");
    return true;
  }
  const ChrootEnvironment environment(root);
  CommandLine command{kSanityCheckScript};
  ChrootExecutor executor(root, command.argv(), chrootEnvironment());
  if (executor.waitExecute(timeout) != 0) {
    SELVANE_LOG_E("PackageManager:performSanityCheck:status=failed:Sanity Check Failed");
    return false;
  }
  SELVANE_LOG_I("PackageManager:performSanityCheck:status=success:Sanity Check Success");
  return true;
}

}  // namespace selvane
