// PackageManager on real target roots: busybox-static roots (on ext3 over a loop device for the
// full cycle), the project's opkg-compatible tool as the host's opkg and the target's
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
#include <map>
#include <string>
#include <vector>

#include "ErrorText.h"
#include "Harness.h"
#include "LabelledPartitions.h"
#include "OpkgTool.h"
#include "PackageBuilder.h"

namespace {

using Packages = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

const char kChrootEnvironment[] =
    " ; with Environment: RUNLEVEL=X SHELL=/bin/sh USER=root "
    "PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin";
const char kScratch[] = "/var/local/lib/selvane";
const std::string kInstalled = "Status: install ok installed\n";
const char kInstallFailed[] = "E PackageManager:installError::Failed to install package";

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

fixtures::PackageRecipe packageRecipe(const std::string& name, const std::string& version) {
  fixtures::PackageRecipe recipe;
  recipe.name = name;
  recipe.version = version;
  recipe.files["/usr/share/" + name + "/data"] = name + " " + version + "\n";
  return recipe;
}

// ---- package database -----------------------------------------------------------------------

class PackageDatabase : public ::testing::Test {
 protected:
  void SetUp() override { mkdirs(root + "/var/lib/opkg"); }
  // The map after a refresh over this status file.
  const Packages& read(const std::string& status) {
    harness::writeFile(root + "/var/lib/opkg/status", status);
    manager.refreshInstalledPackages();
    return manager.getInstalledPackages();
  }

  harness::ScratchDir scratch;
  const std::string root = scratch / "root";
  selvane::PackageManager manager{root};
  harness::LogCapture log;
};

TEST_F(PackageDatabase, StatusFileQuirksAndHostileContent) {
  using namespace std::string_literals;
  const std::string ok = "Status: install ok installed\n", longName(1 << 20, 'x');
  const auto stanza = [](const std::string& name, const std::string& version,
                         const std::string& status) {
    return "Package: "s + name + "\nVersion: " + version + "\nStatus: " + status + "\n\n";
  };
  const auto good = [&](const std::string& name, const std::string& version) {
    return stanza(name, version, "install ok installed");
  };
  const struct {
    const char* what;
    std::string status;
    Packages expected;
  } cases[] = {
      {"installed flag of a stanza without Version carries over",
       "Package: a\n" + ok + "\n" + stanza("b", "2", "deinstall ok not-installed"),
       {{"b", "2"}}},
      {"Version of a stanza without Package carries over",
       "Version: 7\n" + ok + "\nPackage: b\nStatus: deinstall ok not-installed\n\n",
       {{"b", "7"}}},
      {"unpacked counts, half-installed does not",
       stanza("a", "1", "install ok unpacked") + stanza("b", "2", "install ok half-installed"),
       {{"a", "1"}}},
      {"two blanks before installed", stanza("a", "1", "install ok  installed"), {{"a", "1"}}},
      {"a tab does not separate words", stanza("a", "1", "install ok\tinstalled"), {}},
      {"Status without words", stanza("a", "1", "") + "Package: b\nStatus:\n\n", {}},
      {"manifest closed by an empty line",
       good("vindal-manifest", "3") + good("a", "1"),
       {{"a", "1"}}},
      {"manifest closed by the final line feed", "Package: vindal-manifest\nVersion: 3\n" + ok, {}},
      {"last stanza without a line feed",
       good("a", "1") + "Package: vindal-manifest\nVersion: 3\nStatus: installed",
       {{"a", "1"}, {"vindal-manifest", "3"}}},
      {"later stanza of a name wins", good("a", "1") + good("a", "2"), {{"a", "2"}}},
      {"blanks around key, colon and value",
       "Package:a\nVersion:1\n" + ok + "\n  Package  :  b  \n Version : 2 \n" + ok,
       {{"a", "1"}, {"b", "2"}}},
      {"keys are case-sensitive", "package: a\nVersion: 1\n" + ok + "\n", {}},
      {"continuation lines, one with a colon",
       "Package: a\nVersion: 1\nDescription: first\n more text\n .\n Package: b\n" + ok + "\n",
       {{"b", "1"}}},
      {"blank-only line closes a stanza",
       "Package: a\nVersion: 1\n" + ok + " \t \n" + good("b", "2"),
       {{"a", "1"}, {"b", "2"}}},
      {"carriage returns", "Package: a\r\nVersion: 1\r\n" + ok + "\r\n", {{"a", "1"}}},
      {"colons only", ":\n::\n: :\n\n", {}},
      {"binary bytes",
       "\x01\xff\xfe garbage\n"s + good("a\0b"s, "\x80\x81"),
       {{"a\0b"s, "\x80\x81"}}},
      {"very long lines",
       "Description: " + std::string(1 << 22, 'y') + "\n" + std::string(1 << 21, 'z') + "\n" +
           good(longName, "1"),
       {{longName, "1"}}},
      {"NUL bytes only", std::string(4096, '\0'), {}},
  };
  for (const auto& c : cases) EXPECT_EQ(read(c.status), c.expected) << c.what;
}

TEST_F(PackageDatabase, MissingStatusFileOrLockDirectory) {
  // The reference is the member itself: it shows every later refresh.
  const Packages& packages = manager.getInstalledPackages();
  EXPECT_TRUE(packages.empty()) << "nothing is read before a refresh";
  EXPECT_EQ(read("Package: a\nVersion: 1\n" + kInstalled), (Packages{{"a", "1"}}));
  EXPECT_EQ(packages.size(), 1u);

  ASSERT_EQ(unlink((root + "/var/lib/opkg/status").c_str()), 0);
  log.clear();
  manager.refreshInstalledPackages();
  EXPECT_TRUE(packages.empty());
  EXPECT_EQ(log.texts(), Lines{"W PackageManager:refreshInstalledPackages:reason=statusFileMissing:"
                               "Could not find /var/lib/opkg/status in the target FS."});

  mkdirs(root + "/var/lib/opkg/status");  // opens, but cannot be read
  log.clear();
  manager.refreshInstalledPackages();
  EXPECT_TRUE(packages.empty());
  EXPECT_EQ(log.startingWith("W PackageManager:refreshInstalledPackages:reason=statusFileMissing:")
                .size(),
            1u);

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
  harness::writeFile(root + "/var/lib/opkg/status", "Package: a\nVersion: 1\n" + kInstalled);
  // Record locks only hold other processes off: a child holds it, as opkg would.
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t holder = fork();
  if (holder == 0) {
    util::ScopedFileLock held(root + "/var/lib/opkg/lock", util::ScopedFileLock::LockNow);
    (void)!write(ready[1], "x", 1);
    usleep(300000);
    _exit(0);
  }
  char byte;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  close(ready[0]);
  close(ready[1]);
  const auto start = std::chrono::steady_clock::now();
  manager.refreshInstalledPackages();
  const auto waited = std::chrono::steady_clock::now() - start;
  waitpid(holder, nullptr, 0);
  EXPECT_GE(waited, std::chrono::milliseconds(200));
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"a", "1"}}));
}

// ---- operations on a target root ------------------------------------------------------------

class PackageOperations : public ::testing::Test {
 protected:
  // A private /tmp (where the library keeps its configuration file), so that the host's files can
  // be compared before and after without the noise of other processes.
  static void SetUpTestSuite() {
    if (harness::privateNamespace()) {
      ASSERT_EQ(mount("selvane-tmp", "/tmp", "tmpfs", 0, "mode=1777"), 0);
    }
  }
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    fixtures::provideHostOpkg();
    fixtures::makeTargetRoot(root);
    mkdirs(pkgs);
  }

  std::string build(const fixtures::PackageRecipe& recipe) {
    return fixtures::buildPackage(recipe, pkgs);
  }
  // What the package manager itself logged since the last clear.
  Lines ours() const {
    Lines result;
    for (const std::string& line : log.texts())
      if (line.compare(1, 16, " PackageManager:") == 0) result.push_back(line);
    return result;
  }
  // Whether a verification without force runs a pass rather than answering from the cache.
  bool verificationRuns() {
    log.clear();
    (void)manager.verifyPackages(false, false);
    return !ours().empty();
  }
  // Lists, sorted, into scratch/name every entry below the places on the running system that the
  // library or opkg might write to, without crossing into other mounts or the scratch directory
  // (type and mode, and size and modification time of files), and the entries of "/", "/var" and
  // "/etc". Given an earlier listing, returns the lines that differ, marked "<" (gone) and ">".
  std::string snapshotHost(const std::string& name, const std::string& earlier = "") const {
    std::string out;
    harness::shell(
        "{ for p in /tmp /usr/bin /var/local /var/lib/opkg /var/tmp /etc/opkg; do find "
        "\"$p\" -xdev -path '" +
            scratch.path() +
            "' -prune -o \\( -type d -printf '%p d %m\\n' \\) -o -printf '%p %y %m %s "
            "%T@\\n'; done; find / /var /etc -maxdepth 1; } 2>/dev/null | sort >'" +
            scratch / name + "'" +
            (earlier.empty()
                 ? ""
                 : " && diff '" + scratch / earlier + "' '" + scratch / name + "' | grep '^[<>]'"),
        &out);
    return out;
  }

  harness::ScratchDir scratch;
  const std::string root = scratch / "root", pkgs = scratch / "pkgs";
  selvane::PackageManager manager{root};
  harness::LogCapture log;
};

TEST_F(PackageOperations, FullCycleOnExt3LeavesTheHostAlone) {
  fixtures::LabelledPartitions partitions(scratch.path());
  const std::string target = scratch / "ext3";
  mkdirs(target);
  ASSERT_EQ(mount(partitions.add("target", 24 << 20, fixtures::LabelledPartitions::Ext3).c_str(),
                  target.c_str(), "ext3", 0, nullptr),
            0);
  fixtures::makeTargetRoot(target);
  fixtures::PackageRecipe baseFiles = packageRecipe("base-files", "3.0.14");
  baseFiles.scripts["postinst"] = "#!/bin/sh\necho \"$1\" > /etc/base-files.configured\n";
  fixtures::PackageRecipe netbase = packageRecipe("netbase", "5.4-r0");
  netbase.scripts["prerm"] = "#!/bin/sh\ntouch /etc/netbase.removed\n";
  fixtures::PackageRecipe app = packageRecipe("vindal-app", "1.2-r3");
  app.architecture = "armv7a-vfp-neon";
  // The check sees the chroot as the library sets it up: environment, kernel file systems and the
  // host's /tmp, where this test's scratch directory lies.
  app.executables["/usr/local/bin/ota-sanity-check.sh"] =
      "#!/bin/sh\n"
      "[ \"$RUNLEVEL $SHELL $USER\" = 'X /bin/sh root' ] || exit 10\n"
      "[ \"$PATH\" = /usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin ] || exit 11\n"
      "[ \"$(pwd)\" = / ] && [ -r /proc/self/status ] && [ -d /sys/kernel ] || exit 12\n"
      "[ -c /dev/null ] && [ -f /etc/base-files.configured ] && [ -d '" +
      pkgs + "' ] && touch /ok\n";
  // Feeds of another system must not survive into the install.
  mkdirs(target + "/var/lib/opkg/lists/feed");
  harness::writeFile(target + "/var/lib/opkg/lists/feed/Packages", "Package: stale\n");

  snapshotHost("before");
  {
    selvane::PackageManager onExt3(target);
    const std::string made = snapshotHost("during", "before");
    // The one new file: the configuration, "> /tmp/tmp.XXXXXX f 600 ...".
    ASSERT_EQ(std::count(made.begin(), made.end(), '\n'), 1) << made;
    const std::string conf = made.substr(2, made.find(' ', 2) - 2);
    EXPECT_EQ(conf.compare(0, 9, "/tmp/tmp."), 0) << conf;
    EXPECT_EQ(harness::readFile(conf),
              "arch all 1\narch any 6\narch noarch 11\narch arm 16\narch armv4 21\narch armv5 26\n"
              "arch armv5-vfp 31\narch armv5e 36\narch armv5e-vfp 41\narch armv6-vfp 46\n"
              "arch armv7a 51\narch armv7a-vfp 56\narch armv7a-vfp-neon 61\narch vindal 66\n"
              "dest root /\n\n");
    const auto check = [&](const std::string& after) {
      EXPECT_EQ(snapshotHost("after", "during"), "") << after;
      EXPECT_EQ(mountsBelow(target), Lines{}) << after;
    };

    for (const auto* recipe : {&app, &netbase, &baseFiles}) {
      const std::string package = build(*recipe);
      log.clear();
      ASSERT_TRUE(onExt3.installPackage(package, 60)) << recipe->name;
      check("install " + recipe->name);
      EXPECT_EQ(ours(), Lines{"I PackageManager:installPackage:package=" + package +
                              ":Installing package"});
      EXPECT_EQ(
          log.startingWith("D Executor:"),
          Lines{"D Executor:Executor:: /usr/bin/opkg --offline-root=" + target + " --conf=" + conf +
                " --tmp-dir=/var/local/lib/selvane --nodeps --force-depends "
                "--force-downgrade --force-maintainer install " +
                package});
      EXPECT_FALSE(exists(target + "/var/lib/opkg/lists"));
    }
    onExt3.refreshInstalledPackages();
    EXPECT_EQ(
        onExt3.getInstalledPackages(),
        (Packages{{"base-files", "3.0.14"}, {"netbase", "5.4-r0"}, {"vindal-app", "1.2-r3"}}));

    log.clear();
    ASSERT_TRUE(onExt3.configurePackages(0));
    check("configure");
    EXPECT_EQ(ours(), Lines{"D PackageManager:configurePackages::Configuring Packages"});
    Lines commands;
    for (const char* step : {" base-files", " base-passwd", " busybox", " netbase", ""})
      commands.push_back(std::string("D Executor:Executor:: /usr/bin/opkg-cl configure") + step +
                         kChrootEnvironment);
    EXPECT_EQ(log.startingWith("D Executor:"), commands);
    EXPECT_EQ(harness::readFile(target + "/etc/base-files.configured"), "configure\n");
    EXPECT_EQ(harness::readFile(target + "/var/lib/opkg/status").find("unpacked"),
              std::string::npos);

    log.clear();
    EXPECT_TRUE(onExt3.verifyPackages(false, false));
    EXPECT_EQ(log.startingWith("D PackageManager:sha256sums:reason=success,").size(), 3u);

    EXPECT_TRUE(onExt3.performSanityCheck(30));
    check("sanity check");
    EXPECT_TRUE(exists(target + "/ok"));
    // Neither the check nor a repeated verification touches the cached outcome.
    log.clear();
    EXPECT_TRUE(onExt3.verifyPackages(true, false));
    EXPECT_EQ(log.texts(), Lines{});

    ASSERT_TRUE(onExt3.removePackage("netbase", 0));
    check("remove");
    EXPECT_TRUE(exists(target + "/etc/netbase.removed"));
    EXPECT_FALSE(exists(target + "/usr/share/netbase/data"));
  }
  EXPECT_EQ(snapshotHost("after", "before"), "") << "the configuration file goes too";
  EXPECT_EQ(umount(target.c_str()), 0);
}

TEST_F(PackageOperations, EmptyRootIsTheRunningSystem) {
  mkdirs("/var/lib/opkg");  // on the overlay over the host's /var
  harness::writeFile("/var/lib/opkg/status", "Package: host-only\nVersion: 9\n" + kInstalled);
  selvane::PackageManager host("");
  host.refreshInstalledPackages();
  EXPECT_EQ(host.getInstalledPackages(), (Packages{{"host-only", "9"}}));
}

TEST_F(PackageOperations, CorruptedFilesAreCaughtAndTheirPackagesRemoved) {
  fixtures::PackageRecipe noSums = packageRecipe("d-nosums", "1");
  noSums.withSha256Sums = false;
  for (const auto& recipe : {packageRecipe("a-pkg", "1"), packageRecipe("b-pkg", "1"),
                             packageRecipe("c-pkg", "1"), noSums})
    ASSERT_TRUE(manager.installPackage(build(recipe), 0)) << recipe.name;
  manager.refreshInstalledPackages();
  harness::writeFile(root + "/usr/share/a-pkg/data", "tampered\n");
  harness::writeFile(root + "/usr/share/c-pkg/data", "tampered\n");
  const auto bad = [](const char* name) {
    return "W PackageManager:sha256sums:reason=failure,package_name=" + std::string(name) +
           ":Failed to verify sha256sums for package, marking bad";
  };

  // The first bad package (in name order) decides and ends the pass.
  log.clear();
  EXPECT_FALSE(manager.verifyPackages(false, false));
  EXPECT_EQ(ours(), (Lines{"I PackageManager:verifyPackages:remove_bad=false:Verifying package "
                           "contents",
                           bad("a-pkg")}));

  // A failed pass is not cached; with removal every package is checked and the bad ones go.
  snapshotHost("before");
  log.clear();
  EXPECT_FALSE(manager.verifyPackages(true, false));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_EQ(snapshotHost("after", "before"), "");
  EXPECT_EQ(ours(),
            (Lines{"I PackageManager:verifyPackages:remove_bad=true:Verifying package contents",
                   bad("a-pkg"), "I PackageManager:removePackage:package=a-pkg:Removing package",
                   "D PackageManager:sha256sums:reason=success,package_name=b-pkg:Successfully "
                   "verified shasums for package.",
                   bad("c-pkg"), "I PackageManager:removePackage:package=c-pkg:Removing package",
                   "D PackageManager:sha256sums:reason=noshasums,package_name=d-nosums:Failed to "
                   "open sha256sums file for package, skipping"}));
  EXPECT_FALSE(exists(root + "/usr/share/a-pkg/data"));
  EXPECT_FALSE(exists(root + "/var/lib/opkg/info/c-pkg.sha256sums"));
  EXPECT_TRUE(exists(root + "/usr/share/b-pkg/data"));
  // The map is not updated by removal; a refresh shows what is left.
  EXPECT_EQ(manager.getInstalledPackages().size(), 4u);
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(), (Packages{{"b-pkg", "1"}, {"d-nosums", "1"}}));

  EXPECT_TRUE(manager.verifyPackages(false, false));
  EXPECT_FALSE(verificationRuns()) << "a good outcome is cached";
  log.clear();
  EXPECT_TRUE(manager.verifyPackages(false, true));
  EXPECT_EQ(ours().size(), 3u) << "force runs again";
}

TEST_F(PackageOperations, InstallAndRemoveEdgeCases) {
  // A good outcome of an empty map is cached until something changes the target.
  EXPECT_TRUE(verificationRuns());
  EXPECT_FALSE(verificationRuns());

  // Unknown package: false, nothing logged of our own but the start, and the cache is gone.
  log.clear();
  EXPECT_FALSE(manager.removePackage("ghost", 0));
  EXPECT_EQ(mountsBelow(root), Lines{});
  EXPECT_TRUE(log.contains(
      "D Executor:Executor:: /usr/bin/opkg-cl remove --force-remove --nodeps --force-depends "
      "--force-maintainer ghost" +
      std::string(kChrootEnvironment)));
  EXPECT_EQ(ours(), Lines{"I PackageManager:removePackage:package=ghost:Removing package"});
  EXPECT_TRUE(verificationRuns());

  // The configuration file reaches opkg: the device's architecture is accepted, others are not.
  // A scratch directory left over by an earlier run is taken over and removed.
  fixtures::PackageRecipe device = packageRecipe("device", "1");
  device.architecture = "vindal";
  fixtures::PackageRecipe foreign = packageRecipe("foreign", "1");
  foreign.architecture = "x86_64";
  mkdirs(std::string(kScratch) + "/leftover");
  EXPECT_TRUE(manager.installPackage(build(device), 0));
  EXPECT_FALSE(exists(kScratch));
  EXPECT_TRUE(verificationRuns()) << "install clears the cache";
  log.clear();
  EXPECT_FALSE(manager.installPackage(build(foreign), 0));
  EXPECT_TRUE(log.contains(kInstallFailed));
  EXPECT_FALSE(exists(kScratch));
  EXPECT_FALSE(exists(root + "/usr/share/foreign"));

  // A lists directory that cannot be erased (a mount point inside it) stops the install.
  const std::string busy = root + "/var/lib/opkg/lists/busy";
  mkdirs(busy);
  ASSERT_EQ(mount(busy.c_str(), busy.c_str(), nullptr, MS_BIND, nullptr), 0);
  log.clear();
  EXPECT_FALSE(manager.installPackage(build(device), 0));
  const Lines errors = ours();
  ASSERT_EQ(errors.size(), 3u);
  EXPECT_EQ(errors[1].rfind("E PackageManager:initOpkg:dir=" + root +
                                "/var/lib/opkg/lists,errno=16:Failed to erase lists dir: ",
                            0),
            0u);
  EXPECT_EQ(errors[2], "E PackageManager:installError::Failed to set up opkg directory");
  ASSERT_EQ(umount(busy.c_str()), 0);

  // A plain file where a directory belongs is accepted here (opkg then fails on it).
  ASSERT_EQ(
      harness::shell("rm -rf '" + root + "/var/lib/opkg' && touch '" + root + "/var/lib/opkg'"), 0);
  log.clear();
  EXPECT_FALSE(manager.installPackage(build(device), 0));
  EXPECT_TRUE(log.contains(kInstallFailed));
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
}

TEST_F(PackageOperations, InstallThatOutlivesItsTimeoutIsKilled) {
  // A package file that never arrives: opkg waits on the pipe until it is killed.
  const std::string stalled = pkgs + "/stalled.ipk";
  ASSERT_EQ(mkfifo(stalled.c_str(), 0644), 0);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(manager.installPackage(stalled, 1));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::seconds(1));
  EXPECT_LT(took, std::chrono::seconds(4));
  const Lines results = log.startingWith("E ChildTask:result:");
  ASSERT_EQ(results.size(), 1u);
  EXPECT_NE(results[0].find(",status=137:Child signaled"), std::string::npos) << results[0];
  EXPECT_TRUE(log.contains(kInstallFailed));
  EXPECT_FALSE(exists(kScratch));
}

TEST_F(PackageOperations, ConfigureRetriesTheFullRun) {
  fixtures::PackageRecipe flaky = packageRecipe("flaky", "1");
  flaky.scripts["postinst"] =
      "#!/bin/sh\nn=$(cat /var/flaky.attempts 2>/dev/null || echo 0)\n"
      "n=$((n + 1))\necho $n > /var/flaky.attempts\n[ $n -ge 3 ]\n";
  ASSERT_TRUE(manager.installPackage(build(flaky), 0));
  EXPECT_TRUE(manager.verifyPackages(false, false));  // caches a good outcome
  log.clear();
  EXPECT_TRUE(manager.configurePackages(0));
  EXPECT_EQ(mountsBelow(root), Lines{});
  const Lines attempts{"E PackageManager:configurePackagesFailed:attempt=0:",
                       "E PackageManager:configurePackagesFailed:attempt=1:",
                       "E PackageManager:configurePackagesFailed:attempt=2:"};
  EXPECT_EQ(log.startingWith("E PackageManager:"), Lines(attempts.begin(), attempts.begin() + 2));
  EXPECT_EQ(harness::readFile(root + "/var/flaky.attempts"), "3\n");
  // Four base packages (none installed here, which stops nothing) and three full runs.
  EXPECT_EQ(log.count("D ChildTask:waitExecute:timeout=0:Running child task"), 7u);
  EXPECT_TRUE(verificationRuns()) << "configure clears the cache";

  // Without opkg-cl in the target every command fails to start.
  const std::string bare = scratch / "bare";
  harness::makeBusyboxRoot(bare);
  selvane::PackageManager onBare(bare);
  log.clear();
  EXPECT_FALSE(onBare.configurePackages(0));
  EXPECT_EQ(mountsBelow(bare), Lines{});
  EXPECT_EQ(log.startingWith("E PackageManager:"), attempts);
  EXPECT_EQ(log.startingWith("D ChildTask:result:pid_result=").size(), 7u);
}

TEST_F(PackageOperations, SanityCheck) {
  const std::string starting =
      "I PackageManager:performSanityCheck:status=starting:Running Sanity Check";
  const char* const success =
      "I PackageManager:performSanityCheck:status=success:Sanity Check Success";
  const char* const failed =
      "E PackageManager:performSanityCheck:status=failed:Sanity Check Failed";
  const char* const skipped =
      "W PackageManager:performSanityCheck:status=skipped:Sanity Check Skipped";
  // Shell commands that put something at $S, the script's path.
  const struct {
    const char* what;
    const char* make;
    int timeout;
    const char* line;
  } cases[] = {
      {"absent", "", 0, skipped},
      {"exits with 0", "printf '#!/bin/sh\\nexit 0\\n' >$S && chmod 755 $S", 0, success},
      {"exits with 1", "printf '#!/bin/sh\\nexit 1\\n' >$S && chmod 755 $S", 0, failed},
      {"not executable", "printf '#!/bin/sh\\nexit 0\\n' >$S", 0, failed},
      {"a directory", "mkdir $S", 0, failed},
      {"dangling link (inside the target it may resolve)", "ln -s /nowhere/check.sh $S", 0, failed},
      {"outlives its timeout", "printf '#!/bin/sh\\nexec sleep 30\\n' >$S && chmod 755 $S", 1,
       failed},
  };
  for (const auto& c : cases) {
    ASSERT_EQ(
        harness::shell("S='" + root + "/usr/local/bin/ota-sanity-check.sh'; rm -rf $S; " + c.make),
        0)
        << c.what;
    log.clear();
    EXPECT_EQ(manager.performSanityCheck(c.timeout), c.line != failed) << c.what;
    EXPECT_EQ(ours(), (Lines{starting, c.line})) << c.what;
    EXPECT_EQ(mountsBelow(root), Lines{}) << c.what;
    EXPECT_EQ(log.startingWith("E BindMount"), Lines{}) << c.what;
    EXPECT_EQ(log.startingWith("W ChildTask:kill:pid=").size(), c.timeout > 0 ? 1u : 0u) << c.what;
    EXPECT_EQ(log.startingWith("D Executor").empty(), c.line == skipped) << "runs only a script";
  }
}

TEST_F(PackageOperations, ChildProcessFailuresLeaveNothingBehind) {
  harness::writeFile(root + "/usr/local/bin/ota-sanity-check.sh", "#!/bin/sh\n", 0755);
  const std::string package = build(packageRecipe("pkg", "1"));
  // With SIGCHLD ignored the kernel reaps every child itself, so waitpid() fails with ECHILD.
  struct sigaction ignore {
  }, saved{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGCHLD, &ignore, &saved), 0);
  const std::pair<const char*, std::function<void()>> operations[] = {
      {"install", [&] { (void)manager.installPackage(package, 0); }},
      {"remove", [&] { (void)manager.removePackage("pkg", 0); }},
      {"configure", [&] { (void)manager.configurePackages(0); }},
      {"sanity check", [&] { (void)manager.performSanityCheck(0); }},
  };
  for (const auto& [what, operation] : operations) {
    EXPECT_EQ(fixtures::errorText(operation), "Failed to waitpid") << what;
    EXPECT_EQ(mountsBelow(root), Lines{}) << what;
    EXPECT_FALSE(exists(kScratch)) << what;
  }
  sigaction(SIGCHLD, &saved, nullptr);
}

}  // namespace
