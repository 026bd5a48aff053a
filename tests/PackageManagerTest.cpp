// PackageManager on real target roots: busybox-static roots (on ext3 over a loop device where the
// file system matters), the project's opkg-compatible tool as the host's opkg and the target's
// opkg-cl, and real packages.
#include <selvane/PackageManager.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <util/ScopedFileLock.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Ext3Volume.h"
#include "Harness.h"
#include "OpkgTool.h"
#include "PackageBuilder.h"

namespace {

using Packages = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

const char kChrootEnvironment[] =
    " ; with Environment: RUNLEVEL=X SHELL=/bin/sh USER=root "
    "PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin";
const char kScratch[] = "/var/local/lib/selvane";

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

// Mount points strictly below root (root itself may be a mount point).
Lines mountsBelow(const std::string& root) {
  Lines mounts = harness::mountsUnder(root);
  mounts.erase(std::remove(mounts.begin(), mounts.end(), root), mounts.end());
  return mounts;
}

void mkdirs(const std::string& path) { ASSERT_EQ(harness::shell("mkdir -p '" + path + "'"), 0); }

fixtures::PackageRecipe packageSpec(const std::string& name, const std::string& version) {
  fixtures::PackageRecipe recipe;
  recipe.name = name;
  recipe.version = version;
  recipe.files["/usr/share/" + name + "/data"] = name + " " + version + "\n";
  return recipe;
}

// ---- package database -----------------------------------------------------------------------

class PackageDatabase : public ::testing::Test {
 protected:
  void SetUp() override {
    root = scratch / "root";
    mkdirs(root + "/var/lib/opkg");
  }
  void writeStatus(const std::string& content) {
    harness::writeFile(root + "/var/lib/opkg/status", content);
  }

  harness::ScratchDir scratch;
  std::string root;
};

// Fresh "/tmp/tmp.XXXXXX" files with exactly this content.
Lines temporaryFilesHolding(const std::string& content) {
  std::string names;
  harness::shell("ls /tmp/tmp.?????? 2>/dev/null", &names);
  Lines result;
  std::istringstream in(names);
  for (std::string name; std::getline(in, name);)
    if (harness::readFile(name) == content) result.push_back(name);
  std::sort(result.begin(), result.end());
  return result;
}

TEST_F(PackageDatabase, ConfigurationFileLivesAsLongAsTheManager) {
  const std::string expected =
      "arch all 1\narch any 6\narch noarch 11\narch arm 16\narch armv4 21\narch armv5 26\n"
      "arch armv5-vfp 31\narch armv5e 36\narch armv5e-vfp 41\narch armv6-vfp 46\n"
      "arch armv7a 51\narch armv7a-vfp 56\narch armv7a-vfp-neon 61\narch vindal 66\n"
      "dest root /\n\n";
  // Other tests make configuration files too; a private /tmp keeps them out of sight when we can.
  if (harness::privateNamespace()) {
    ASSERT_EQ(mount("selvane-tmp", "/tmp", "tmpfs", 0, "mode=1777"), 0);
  }
  const Lines before = temporaryFilesHolding(expected);
  Lines during;
  {
    selvane::PackageManager manager(root);
    EXPECT_TRUE(manager.getInstalledPackages().empty());
    during = temporaryFilesHolding(expected);
  }
  Lines made;
  std::set_difference(during.begin(), during.end(), before.begin(), before.end(),
                      std::back_inserter(made));
  ASSERT_EQ(made.size(), 1u) << "the configuration file among " << ::testing::PrintToString(during);
  EXPECT_FALSE(exists(made[0]));
}

TEST_F(PackageDatabase, StatusFileQuirksAndHostileContent) {
  using namespace std::string_literals;
  const std::string installed = "Status: install ok installed\n";
  const std::string longName(1 << 20, 'x');
  struct Case {
    const char* what;
    std::string status;
    Packages expected;
  };
  const std::vector<Case> cases = {
      {"two stanzas",
       "Package: a\nVersion: 1\n" + installed + "\nPackage: b\nVersion: 2\n" + installed + "\n",
       {{"a", "1"}, {"b", "2"}}},
      {"installed flag of a stanza without Version carries over",
       "Package: a\n" + installed +
           "\nPackage: b\nVersion: 2\nStatus: deinstall ok not-installed\n\n",
       {{"b", "2"}}},
      {"Version of a stanza without Package carries over",
       "Version: 7\n" + installed + "\nPackage: b\nStatus: deinstall ok not-installed\n\n",
       {{"b", "7"}}},
      {"unpacked counts, half-installed does not",
       "Package: a\nVersion: 1\nStatus: install ok unpacked\n\n"
       "Package: b\nVersion: 2\nStatus: install ok half-installed\n\n",
       {{"a", "1"}}},
      {"two blanks before installed",
       "Package: a\nVersion: 1\nStatus: install ok  installed\n\n",
       {{"a", "1"}}},
      {"a tab does not separate words",
       "Package: a\nVersion: 1\nStatus: install ok\tinstalled\n\n",
       {}},
      {"Status without words", "Package: a\nVersion: 1\nStatus:\n\nPackage: b\nStatus: \n\n", {}},
      {"manifest package closed by an empty line",
       "Package: vindal-manifest\nVersion: 3\n" + installed + "\nPackage: a\nVersion: 1\n" +
           installed + "\n",
       {{"a", "1"}}},
      {"manifest package closed by the final line feed",
       "Package: vindal-manifest\nVersion: 3\n" + installed,
       {}},
      {"manifest package last without a line feed",
       "Package: a\nVersion: 1\n" + installed + "\nPackage: vindal-manifest\nVersion: 3\n" +
           "Status: install ok installed",
       {{"a", "1"}, {"vindal-manifest", "3"}}},
      {"last stanza without a line feed",
       "Package: a\nVersion: 1\nStatus: install ok installed",
       {{"a", "1"}}},
      {"later stanza of a name wins",
       "Package: a\nVersion: 1\n" + installed + "\nPackage: a\nVersion: 2\n" + installed + "\n",
       {{"a", "2"}}},
      {"blanks around key, colon and value",
       "Package:a\nVersion:1\nStatus:install ok installed\n\n  Package  :  b  \n Version : 2 \n" +
           installed + "\n",
       {{"a", "1"}, {"b", "2"}}},
      {"keys are case-sensitive", "package: a\nVersion: 1\n" + installed + "\n", {}},
      {"continuation lines",
       "Package: a\nVersion: 1\nDescription: first\n more text\n .\n" + installed + "\n",
       {{"a", "1"}}},
      {"continuation line with a colon is a field",
       "Package: a\nVersion: 1\nDescription: first\n Package: b\n" + installed + "\n",
       {{"b", "1"}}},
      {"blank-only line closes a stanza",
       "Package: a\nVersion: 1\n" + installed + " \t \nPackage: b\nVersion: 2\n" + installed,
       {{"a", "1"}, {"b", "2"}}},
      {"carriage returns", "Package: a\r\nVersion: 1\r\n" + installed + "\r\n", {{"a", "1"}}},
      {"empty file", "", {}},
      {"colons only", ":\n::\n: :\n\n", {}},
      {"binary bytes",
       "\x01\xff\xfe garbage\nPackage: a\0b\nVersion: \x80\x81\n"s + installed + "\n",
       {{"a\0b"s, "\x80\x81"}}},
      {"very long lines",
       "Package: " + longName + "\nVersion: 1\nDescription: " + std::string(1 << 22, 'y') + "\n" +
           std::string(1 << 21, 'z') + "\n" + installed + "\n",
       {{longName, "1"}}},
      {"NUL bytes only", std::string(4096, '\0'), {}},
  };
  // One manager for every case: each refresh starts from an empty map.
  selvane::PackageManager manager(root);
  for (const Case& c : cases) {
    writeStatus(c.status);
    manager.refreshInstalledPackages();
    EXPECT_EQ(manager.getInstalledPackages(), c.expected) << c.what;
  }
}

TEST_F(PackageDatabase, MissingStatusFileOrLockDirectory) {
  harness::LogCapture log;
  selvane::PackageManager manager(root);
  writeStatus("Package: a\nVersion: 1\nStatus: install ok installed\n\n");
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"a", "1"}}));
  // The reference is the member itself: a later refresh shows through it.
  const Packages& packages = manager.getInstalledPackages();

  ASSERT_EQ(unlink((root + "/var/lib/opkg/status").c_str()), 0);
  log.clear();
  manager.refreshInstalledPackages();
  EXPECT_TRUE(packages.empty());
  EXPECT_EQ(log.texts(),
            (Lines{"W PackageManager:refreshInstalledPackages:reason=statusFileMissing:"
                   "Could not find /var/lib/opkg/status in the target FS."}));

  // A status file that is a directory reads as empty.
  mkdirs(root + "/var/lib/opkg/status");
  manager.refreshInstalledPackages();
  EXPECT_TRUE(packages.empty());

  // Without /var/lib/opkg the lock file cannot be made.
  selvane::PackageManager elsewhere(scratch / "nothere");
  log.clear();
  elsewhere.refreshInstalledPackages();
  EXPECT_TRUE(elsewhere.getInstalledPackages().empty());
  const Lines warnings = log.startingWith(
      "W PackageManager:refreshInstalledPackages:reason=caughtScopedFileLockError:");
  ASSERT_EQ(warnings.size(), 1u);
  EXPECT_NE(warnings[0].find(scratch / "nothere/var/lib/opkg/lock"), std::string::npos);
  EXPECT_NE(warnings[0].find("No such file or directory"), std::string::npos);
}

TEST_F(PackageDatabase, RefreshWaitsForTheOpkgLock) {
  writeStatus("Package: a\nVersion: 1\nStatus: install ok installed\n\n");
  int ready[2], release[2];
  ASSERT_EQ(pipe(ready), 0);
  ASSERT_EQ(pipe(release), 0);
  const pid_t holder = fork();
  ASSERT_NE(holder, -1);
  if (holder == 0) {
    util::ScopedFileLock lock(root + "/var/lib/opkg/lock", util::ScopedFileLock::LockNow);
    char c = 0;
    (void)!write(ready[1], &c, 1);
    (void)!read(release[0], &c, 1);
    _exit(0);
  }
  char c;
  ASSERT_EQ(read(ready[0], &c, 1), 1);
  std::thread releaser([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    (void)!write(release[1], &c, 1);
  });
  selvane::PackageManager manager(root);
  const auto start = std::chrono::steady_clock::now();
  manager.refreshInstalledPackages();
  const auto waited = std::chrono::steady_clock::now() - start;
  releaser.join();
  int status;
  waitpid(holder, &status, 0);
  for (int fd : {ready[0], ready[1], release[0], release[1]}) close(fd);
  EXPECT_GE(waited, std::chrono::milliseconds(250));
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"a", "1"}}));
}

TEST_F(PackageDatabase, EmptyRootReadsTheRunningSystemsStatus) {
  SELVANE_REQUIRE_ROOT();
  harness::makeHostPathWritable("/var");
  mkdirs("/var/lib/opkg");
  harness::writeFile("/var/lib/opkg/status",
                     "Package: host-only\nVersion: 9\nStatus: install ok installed\n\n");
  selvane::PackageManager manager("");
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"host-only", "9"}}));
}

// ---- operations on a target root ------------------------------------------------------------

class PackageOperations : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!harness::privateNamespace()) GTEST_SKIP() << "needs root and a private mount namespace";
    fixtures::provideHostOpkg();
    pkgs = scratch / "pkgs";
    mkdirs(pkgs);
  }

  // A busybox root with opkg-cl at dir (which need not exist yet).
  std::string makeRoot(const std::string& dir) {
    fixtures::makeTargetRoot(dir);
    return dir;
  }
  std::string build(const fixtures::PackageRecipe& recipe) {
    return fixtures::buildPackage(recipe, pkgs);
  }

  harness::ScratchDir scratch;
  std::string pkgs;
};

TEST_F(PackageOperations, FullCycleOnExt3) {
  fixtures::Ext3Volume volume(scratch.path(), 24);
  const std::string root = makeRoot(volume.mountPoint());

  fixtures::PackageRecipe baseFiles = packageSpec("base-files", "3.0.14");
  baseFiles.files["/etc/issue"] = "selvane\n";
  baseFiles.scripts["postinst"] = "#!/bin/sh\necho \"$1\" > /etc/base-files.configured\n";
  fixtures::PackageRecipe netbase = packageSpec("netbase", "5.4-r0");
  netbase.files["/etc/protocols"] = "ip 0 IP\n";
  netbase.scripts["postinst"] =
      "#!/bin/sh\n[ -f /etc/base-files.configured ] && touch /etc/netbase.ok\n";
  fixtures::PackageRecipe app = packageSpec("vindal-app", "1.2-r3");
  app.architecture = "armv7a-vfp-neon";
  app.executables["/usr/bin/vindal-app"] = "#!/bin/sh\necho app\n";
  // The check sees the chroot as the library sets it up: environment, kernel file systems, /tmp.
  app.executables["/usr/local/bin/ota-sanity-check.sh"] =
      "#!/bin/sh\n"
      "[ \"$RUNLEVEL $SHELL $USER\" = 'X /bin/sh root' ] || exit 10\n"
      "[ \"$PATH\" = /usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin ] || exit 11\n"
      "[ \"$(pwd)\" = / ] && [ -r /proc/self/status ] && [ -d /sys/kernel ] || exit 12\n"
      "[ -c /dev/null ] && [ -f /etc/netbase.ok ] || exit 13\n"
      // The host's /tmp, where this test's scratch directory lies.
      "[ -d '" +
      scratch.path() + "/pkgs' ] || exit 14\n";
  app.scripts["postinst"] = "#!/bin/sh\nvindal-app > /etc/vindal-app.out\n";

  // Feeds of another system must not survive into the install.
  mkdirs(root + "/var/lib/opkg/lists/feed");
  harness::writeFile(root + "/var/lib/opkg/lists/feed/Packages", "Package: stale\n");

  harness::LogCapture log;
  selvane::PackageManager manager(root);
  for (const auto* recipe : {&app, &netbase, &baseFiles}) {
    const std::string package = build(*recipe);
    log.clear();
    ASSERT_TRUE(manager.installPackage(package, 60)) << recipe->name;
    EXPECT_TRUE(
        log.contains("I PackageManager:installPackage:package=" + package + ":Installing package"));
    // The configuration file is the manager's fresh "/tmp/tmp.XXXXXX".
    const Lines commands = log.startingWith("D Executor:Executor:: /usr/bin/opkg ");
    ASSERT_EQ(commands.size(), 1u);
    const std::string head =
        "D Executor:Executor:: /usr/bin/opkg --offline-root=" + root + " --conf=/tmp/tmp.";
    EXPECT_EQ(commands[0].compare(0, head.size(), head), 0) << commands[0];
    EXPECT_EQ(commands[0].substr(head.size() + 6),
              " --tmp-dir=/var/local/lib/selvane --nodeps --force-depends --force-downgrade "
              "--force-maintainer install " +
                  package);
    EXPECT_FALSE(exists(root + "/var/lib/opkg/lists"));
    EXPECT_FALSE(exists(kScratch));
    EXPECT_EQ(mountsBelow(root), Lines{});
  }
  manager.refreshInstalledPackages();
  const Packages all{{"base-files", "3.0.14"}, {"netbase", "5.4-r0"}, {"vindal-app", "1.2-r3"}};
  EXPECT_EQ(manager.getInstalledPackages(), all);
  EXPECT_FALSE(exists(root + "/etc/base-files.configured"));

  log.clear();
  ASSERT_TRUE(manager.configurePackages(0));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_TRUE(log.contains("D PackageManager:configurePackages::Configuring Packages"));
  for (const char* base : {"base-files", "base-passwd", "busybox", "netbase"})
    EXPECT_TRUE(log.contains(std::string("D Executor:Executor:: /usr/bin/opkg-cl configure ") +
                             base + kChrootEnvironment))
        << base;
  EXPECT_EQ(log.count(std::string("D Executor:Executor:: /usr/bin/opkg-cl configure") +
                      kChrootEnvironment),
            1u);
  EXPECT_TRUE(log.startingWith("E PackageManager:configurePackagesFailed").empty());
  EXPECT_EQ(harness::readFile(root + "/etc/base-files.configured"), "configure\n");
  EXPECT_TRUE(exists(root + "/etc/netbase.ok"));
  EXPECT_EQ(harness::readFile(root + "/etc/vindal-app.out"), "app\n");
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(), all);
  EXPECT_EQ(harness::readFile(root + "/var/lib/opkg/status").find("unpacked"), std::string::npos);

  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_TRUE(
      log.contains("I PackageManager:verifyPackages:remove_bad=false:Verifying package contents"));
  for (const auto& [name, version] : all)
    EXPECT_TRUE(log.contains("D PackageManager:sha256sums:reason=success,package_name=" + name +
                             ":Successfully verified shasums for package."));

  log.clear();
  EXPECT_TRUE(manager.performSanityCheck(30));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_TRUE(
      log.contains("I PackageManager:performSanityCheck:status=starting:Running Sanity Check"));
  EXPECT_TRUE(
      log.contains("I PackageManager:performSanityCheck:status=success:Sanity Check Success"));

  // Neither the check nor a repeated verification touches the cached outcome.
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(true, false));
  EXPECT_EQ(log.texts(), Lines{});
}

TEST_F(PackageOperations, CorruptedFilesAreCaughtAndTheirPackagesRemoved) {
  const std::string root = makeRoot(scratch / "root");
  selvane::PackageManager manager(root);
  fixtures::PackageRecipe noSums = packageSpec("d-nosums", "1");
  noSums.withSha256Sums = false;
  for (const auto& recipe :
       {packageSpec("a-pkg", "1"), packageSpec("b-pkg", "1"), packageSpec("c-pkg", "1"), noSums})
    ASSERT_TRUE(manager.installPackage(build(recipe), 0)) << recipe.name;
  manager.refreshInstalledPackages();
  ASSERT_EQ(manager.getInstalledPackages().size(), 4u);
  harness::writeFile(root + "/usr/share/a-pkg/data", "tampered\n");
  harness::writeFile(root + "/usr/share/c-pkg/data", "tampered\n");

  harness::LogCapture log;
  EXPECT_FALSE(manager.verifyPackages(false, false));
  // The first bad package (in name order) decides and ends the pass.
  EXPECT_EQ(log.startingWith("I PackageManager:verifyPackages:"),
            Lines{"I PackageManager:verifyPackages:remove_bad=false:Verifying package contents"});
  EXPECT_EQ(log.startingWith("W PackageManager:sha256sums:"),
            Lines{"W PackageManager:sha256sums:reason=failure,package_name=a-pkg:Failed to verify "
                  "sha256sums for package, marking bad"});
  EXPECT_EQ(log.startingWith("D PackageManager:sha256sums:"), Lines{});

  // A failed pass is not cached; with removal every package is checked and the bad ones go.
  log.clear();
  EXPECT_FALSE(manager.verifyPackages(true, false));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_EQ(log.startingWith("W PackageManager:sha256sums:"),
            (Lines{"W PackageManager:sha256sums:reason=failure,package_name=a-pkg:Failed to verify "
                   "sha256sums for package, marking bad",
                   "W PackageManager:sha256sums:reason=failure,package_name=c-pkg:Failed to verify "
                   "sha256sums for package, marking bad"}));
  EXPECT_EQ(log.startingWith("D PackageManager:sha256sums:"),
            (Lines{"D PackageManager:sha256sums:reason=success,package_name=b-pkg:Successfully "
                   "verified shasums for package.",
                   "D PackageManager:sha256sums:reason=noshasums,package_name=d-nosums:Failed to "
                   "open sha256sums file for package, skipping"}));
  EXPECT_EQ(log.startingWith("I PackageManager:removePackage:"),
            (Lines{"I PackageManager:removePackage:package=a-pkg:Removing package",
                   "I PackageManager:removePackage:package=c-pkg:Removing package"}));
  EXPECT_FALSE(exists(root + "/usr/share/a-pkg/data"));
  EXPECT_FALSE(exists(root + "/var/lib/opkg/info/c-pkg.sha256sums"));
  EXPECT_TRUE(exists(root + "/usr/share/b-pkg/data"));
  // The map is not updated by removal; a refresh shows what is left.
  EXPECT_EQ(manager.getInstalledPackages().size(), 4u);
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"b-pkg", "1"}, {"d-nosums", "1"}}));

  EXPECT_TRUE(manager.verifyPackages(false, false));
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_EQ(log.texts(), Lines{}) << "a good outcome is cached";
  EXPECT_TRUE(manager.verifyPackages(false, true));
  EXPECT_EQ(log.startingWith("I PackageManager:verifyPackages:").size(), 1u) << "force runs again";
}

TEST_F(PackageOperations, InstallAndRemoveEdgeCases) {
  const std::string root = makeRoot(scratch / "root");
  selvane::PackageManager manager(root);
  harness::LogCapture log;

  // A good outcome of an empty map is cached until something changes the target.
  EXPECT_TRUE(manager.verifyPackages(false, false));
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_EQ(log.texts(), Lines{});

  // Unknown package: false, nothing of our own logged, and the cache is gone.
  EXPECT_FALSE(manager.removePackage("ghost", 0));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_TRUE(log.contains(
      "D Executor:Executor:: /usr/bin/opkg-cl remove --force-remove --nodeps --force-depends "
      "--force-maintainer ghost" +
      std::string(kChrootEnvironment)));
  EXPECT_EQ(log.startingWith("E PackageManager"), Lines{});
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_EQ(log.startingWith("I PackageManager:verifyPackages:").size(), 1u);

  // The configuration file reaches opkg: the device's architecture is accepted, others are not.
  fixtures::PackageRecipe device = packageSpec("device", "1");
  device.architecture = "vindal";
  fixtures::PackageRecipe foreign = packageSpec("foreign", "1");
  foreign.architecture = "x86_64";
  // A scratch directory left over by an earlier run is taken over and removed.
  mkdirs(std::string(kScratch) + "/leftover");
  EXPECT_TRUE(manager.installPackage(build(device), 0));
  EXPECT_FALSE(exists(kScratch));
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_EQ(log.startingWith("I PackageManager:verifyPackages:").size(), 1u) << "install clears it";
  log.clear();
  EXPECT_FALSE(manager.installPackage(build(foreign), 0));
  EXPECT_TRUE(log.contains("E PackageManager:installError::Failed to install package"));
  EXPECT_FALSE(exists(kScratch));
  EXPECT_FALSE(exists(root + "/usr/share/foreign"));

  // A plain file where a directory belongs is accepted here (opkg then fails on it).
  const std::string plain = makeRoot(scratch / "plain");
  ASSERT_EQ(
      harness::shell("rm -rf '" + plain + "/var/lib/opkg' && touch '" + plain + "/var/lib/opkg'"),
      0);
  selvane::PackageManager onPlain(plain);
  log.clear();
  EXPECT_FALSE(onPlain.installPackage(build(device), 0));
  EXPECT_TRUE(log.contains("E PackageManager:installError::Failed to install package"));
  EXPECT_EQ(log.startingWith("E PackageManager:initOpkg"), Lines{});

  // A missing root fails in the preparation, before any command.
  selvane::PackageManager missing(scratch / "nothere");
  log.clear();
  EXPECT_FALSE(missing.installPackage(build(device), 0));
  EXPECT_EQ(log.startingWith("E PackageManager"),
            (Lines{"E PackageManager:initOpkg:dir=" + scratch / "nothere/var" +
                       ",errno=2:Failed to create dir",
                   "E PackageManager:installError::Failed to set up opkg directory"}));
  EXPECT_EQ(log.startingWith("D Executor"), Lines{});

  // A lists directory that cannot be erased (a mount point inside it) stops the install.
  const std::string busy = root + "/var/lib/opkg/lists/busy";
  mkdirs(busy);
  mkdirs(scratch / "empty");
  ASSERT_EQ(mount((scratch / "empty").c_str(), busy.c_str(), nullptr, MS_BIND, nullptr), 0);
  log.clear();
  EXPECT_FALSE(manager.installPackage(build(device), 0));
  const Lines errors = log.startingWith("E PackageManager:initOpkg:dir=" + root +
                                        "/var/lib/opkg/lists,errno=16:Failed to erase lists dir: ");
  EXPECT_EQ(errors.size(), 1u) << ::testing::PrintToString(log.texts());
  EXPECT_TRUE(log.contains("E PackageManager:installError::Failed to set up opkg directory"));
  ASSERT_EQ(umount(busy.c_str()), 0);
}

TEST_F(PackageOperations, InstallThatOutlivesItsTimeoutIsKilled) {
  const std::string root = makeRoot(scratch / "root");
  // A package file that never arrives: opkg waits on the pipe until it is killed.
  const std::string stalled = pkgs + "/stalled.ipk";
  ASSERT_EQ(mkfifo(stalled.c_str(), 0644), 0);
  selvane::PackageManager manager(root);
  harness::LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(manager.installPackage(stalled, 1));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::seconds(1));
  EXPECT_LT(took, std::chrono::seconds(4));
  EXPECT_EQ(log.startingWith("W ChildTask:kill:pid=").size(), 1u);
  EXPECT_EQ(log.startingWith("E ChildTask:result:").size(), 1u);
  EXPECT_NE(log.startingWith("E ChildTask:result:")[0].find(",status=137:Child signaled"),
            std::string::npos);
  EXPECT_TRUE(log.contains("E PackageManager:installError::Failed to install package"));
  EXPECT_FALSE(exists(kScratch));
}

TEST_F(PackageOperations, ConfigureRetriesTheFullRun) {
  const std::string root = makeRoot(scratch / "root");
  fixtures::PackageRecipe flaky = packageSpec("flaky", "1");
  flaky.scripts["postinst"] =
      "#!/bin/sh\nn=$(cat /var/flaky.attempts 2>/dev/null || echo 0)\n"
      "n=$((n + 1))\necho $n > /var/flaky.attempts\n[ $n -ge 3 ]\n";
  selvane::PackageManager manager(root);
  ASSERT_TRUE(manager.installPackage(build(flaky), 0));
  EXPECT_TRUE(manager.verifyPackages(false, false));  // caches a good outcome
  harness::LogCapture log;
  EXPECT_TRUE(manager.configurePackages(0));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_EQ(log.startingWith("E PackageManager:configurePackagesFailed:"),
            (Lines{"E PackageManager:configurePackagesFailed:attempt=0:",
                   "E PackageManager:configurePackagesFailed:attempt=1:"}));
  EXPECT_EQ(harness::readFile(root + "/var/flaky.attempts"), "3\n");
  // Four base packages (none installed here, which stops nothing) and three full runs.
  EXPECT_EQ(log.count("D ChildTask:waitExecute:timeout=0:Running child task"), 7u);

  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_EQ(log.startingWith("I PackageManager:verifyPackages:").size(), 1u)
      << "configure clears it";

  // Without opkg-cl in the target every command fails to start.
  const std::string bare = scratch / "bare";
  harness::makeBusyboxRoot(bare);
  selvane::PackageManager onBare(bare);
  log.clear();
  EXPECT_FALSE(onBare.configurePackages(0));
  EXPECT_EQ(mountsBelow(bare), Lines{});
  EXPECT_EQ(log.startingWith("E PackageManager:configurePackagesFailed:"),
            (Lines{"E PackageManager:configurePackagesFailed:attempt=0:",
                   "E PackageManager:configurePackagesFailed:attempt=1:",
                   "E PackageManager:configurePackagesFailed:attempt=2:"}));
  EXPECT_EQ(log.startingWith("D ChildTask:result:pid_result=").size(), 7u);
  for (const std::string& line : log.startingWith("D ChildTask:result:pid_result="))
    EXPECT_NE(line.find(",status=255:Child exited"), std::string::npos) << line;
}

TEST_F(PackageOperations, SanityCheck) {
  const std::string root = makeRoot(scratch / "root");
  const std::string script = root + "/usr/local/bin/ota-sanity-check.sh";
  struct Case {
    const char* what;
    std::function<void()> setUp;
    int timeout;
    bool expected;
    const char* line;
  };
  const char* const success =
      "I PackageManager:performSanityCheck:status=success:Sanity Check Success";
  const char* const failed =
      "E PackageManager:performSanityCheck:status=failed:Sanity Check Failed";
  const std::vector<Case> cases = {
      {"absent", [] {}, 0, true,
       "W PackageManager:performSanityCheck:status=skipped:Sanity Check Skipped"},
      {"exits with 0", [&] { harness::writeFile(script, "#!/bin/sh\nexit 0\n", 0755); }, 0, true,
       success},
      {"exits with 1", [&] { harness::writeFile(script, "#!/bin/sh\nexit 1\n", 0755); }, 0, false,
       failed},
      {"not executable", [&] { harness::writeFile(script, "#!/bin/sh\nexit 0\n", 0644); }, 0, false,
       failed},
      {"a directory",
       [&] {
         unlink(script.c_str());
         mkdirs(script);
       },
       0, false, failed},
      {"dangling link (inside the target it may resolve)",
       [&] {
         rmdir(script.c_str());
         ASSERT_EQ(symlink("/nowhere/check.sh", script.c_str()), 0);
       },
       0, false, failed},
      {"outlives its timeout",
       [&] {
         unlink(script.c_str());
         harness::writeFile(script, "#!/bin/sh\nexec sleep 30\n", 0755);
       },
       1, false, failed},
  };
  const selvane::PackageManager manager(root);
  harness::LogCapture log;
  for (const Case& c : cases) {
    c.setUp();
    log.clear();
    EXPECT_EQ(manager.performSanityCheck(c.timeout), c.expected) << c.what;
    EXPECT_EQ(log.startingWith("I PackageManager:performSanityCheck:status=starting:").size(), 1u);
    EXPECT_TRUE(log.contains(c.line)) << c.what;
    EXPECT_EQ(mountsBelow(root), Lines{}) << c.what;
    EXPECT_EQ(log.startingWith("E BindMount"), Lines{}) << c.what;
    if (std::string(c.what) == "absent") {
      EXPECT_EQ(log.startingWith("D Executor"), Lines{}) << "nothing is run or mounted";
    }
  }
  EXPECT_EQ(log.startingWith("W ChildTask:kill:pid=").size(), 1u);
}

TEST_F(PackageOperations, ChildProcessFailuresLeaveNothingBehind) {
  const std::string root = makeRoot(scratch / "root");
  harness::writeFile(root + "/usr/local/bin/ota-sanity-check.sh", "#!/bin/sh\n", 0755);
  const std::string package = build(packageSpec("pkg", "1"));
  selvane::PackageManager manager(root);
  // With SIGCHLD ignored the kernel reaps every child itself, so waitpid() fails with ECHILD.
  struct sigaction ignore {
  }, saved{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &saved), 0);
  const std::vector<std::pair<const char*, std::function<void()>>> operations = {
      {"install", [&] { (void)manager.installPackage(package, 0); }},
      {"remove", [&] { (void)manager.removePackage("pkg", 0); }},
      {"configure", [&] { (void)manager.configurePackages(0); }},
      {"sanity check", [&] { (void)manager.performSanityCheck(0); }},
  };
  for (const auto& [what, operation] : operations) {
    try {
      operation();
      ADD_FAILURE() << what << " did not throw";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "Failed to waitpid") << what;
    }
    EXPECT_EQ(mountsBelow(root), Lines{}) << what;
    EXPECT_FALSE(exists(kScratch)) << what;
  }
  sigaction(SIGCHLD, &saved, nullptr);
}

// ---- what the library leaves on the running system -----------------------------------------

using Snapshot = std::map<std::string, std::string>;

// Every entry below the places on the running system that the library or opkg might write to,
// without crossing into other mounts: type and mode, and size and modification time of files.
Snapshot snapshotHost(const std::string& skip) {
  Snapshot snapshot;
  const std::string places[] = {"/tmp",          "/usr/bin", "/var/local",
                                "/var/lib/opkg", "/var/tmp", "/etc/opkg"};
  for (const std::string& place : places) {
    std::string out;
    harness::shell("find '" + place + "' -xdev -path '" + skip +
                       "' -prune -o \\( -type d -printf '%p d %m\\n' \\) -o "
                       "-printf '%p %y %m %s %T@\\n' 2>/dev/null",
                   &out);
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      const size_t blank = line.find(' ');
      snapshot[line.substr(0, blank)] = line.substr(blank + 1);
    }
  }
  for (const char* top : {"/", "/var", "/etc"}) {
    std::string out;
    harness::shell(std::string("ls -A ") + top, &out);
    snapshot[std::string("ls ") + top] = out;
  }
  return snapshot;
}

// Paths that differ between two snapshots, with what each side says.
Lines differences(const Snapshot& before, const Snapshot& after) {
  Lines result;
  for (const auto& [path, what] : before) {
    const auto found = after.find(path);
    if (found == after.end())
      result.push_back("gone: " + path);
    else if (found->second != what)
      result.push_back("changed: " + path + " " + what + " -> " + found->second);
  }
  for (const auto& [path, what] : after)
    if (before.count(path) == 0) result.push_back("new: " + path);
  return result;
}

TEST(PackageManagerHost, NothingIsWrittenOutsideTheTargetRoot) {
  SELVANE_REQUIRE_ROOT();
  // A private /tmp, so that only this test's files are there to compare.
  ASSERT_EQ(mount("selvane-tmp", "/tmp", "tmpfs", 0, "mode=1777"), 0);
  fixtures::provideHostOpkg();
  mkdirs("/var/lib/opkg");
  harness::writeFile("/var/lib/opkg/status",
                     "Package: host-only\nVersion: 9\nStatus: install ok installed\n\n");

  harness::ScratchDir scratch;
  const std::string root = scratch / "root";
  fixtures::makeTargetRoot(root);
  harness::writeFile(root + "/usr/local/bin/ota-sanity-check.sh", "#!/bin/sh\ntouch /ok\n", 0755);
  fixtures::PackageRecipe first = packageSpec("first", "1");
  first.scripts["postinst"] = "#!/bin/sh\ntouch /etc/first.configured\n";
  first.scripts["prerm"] = "#!/bin/sh\ntouch /etc/first.removed\n";
  mkdirs(scratch / "pkgs");
  const std::string packages[] = {
      fixtures::buildPackage(first, scratch / "pkgs"),
      fixtures::buildPackage(packageSpec("second", "1"), scratch / "pkgs")};

  const Snapshot before = snapshotHost(scratch.path());
  {
    selvane::PackageManager manager(root);
    const Snapshot during = snapshotHost(scratch.path());
    const Lines added = differences(before, during);
    ASSERT_EQ(added.size(), 1u) << ::testing::PrintToString(added);
    EXPECT_EQ(added[0].compare(0, 14, "new: /tmp/tmp."), 0) << added[0];

    auto check = [&](const char* after) {
      EXPECT_EQ(differences(during, snapshotHost(scratch.path())), Lines{}) << after;
      EXPECT_EQ(mountsBelow(root), Lines{}) << after;
    };
    for (const std::string& package : packages) {
      ASSERT_TRUE(manager.installPackage(package, 0));
      check("install");
    }
    ASSERT_TRUE(manager.configurePackages(0));
    check("configure");
    manager.refreshInstalledPackages();
    harness::writeFile(root + "/usr/share/second/data", "tampered\n");
    EXPECT_FALSE(manager.verifyPackages(true, true));
    check("verify with removal");
    ASSERT_TRUE(manager.removePackage("first", 0));
    check("remove");
    ASSERT_TRUE(manager.performSanityCheck(0));
    check("sanity check");
  }
  EXPECT_EQ(differences(before, snapshotHost(scratch.path())), Lines{});
  // All the work happened in the target.
  EXPECT_TRUE(exists(root + "/etc/first.configured"));
  EXPECT_TRUE(exists(root + "/etc/first.removed"));
  EXPECT_TRUE(exists(root + "/ok"));
  EXPECT_EQ(harness::readFile(root + "/var/lib/opkg/status"), "");
}

}  // namespace
