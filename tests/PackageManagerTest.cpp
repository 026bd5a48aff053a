// PackageManager on real target roots: busybox-static roots, the project's opkg-compatible tool as
// the host's opkg and the target's opkg-cl, and real packages.
#include <selvane/PackageManager.h>
#include <unistd.h>

#include "Harness.h"
#include "PackageBuilder.h"

namespace {

using harness::quote;
using Packages = std::map<std::string, std::string>;
using Lines = std::vector<std::string>;

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

const std::string kSanity = "PackageManager:performSanityCheck:status=";

void mkdirs(const std::string& path) { ASSERT_EQ(harness::shell("mkdir -p " + quote(path)), 0); }

// The project's opkg-compatible tool, read at start-up: a test may later hide the source tree
// behind a private /tmp. It serves as the running system's opkg and as the target's opkg-cl.
const std::string kOpkg =
    harness::readFile(SELVANE_TEST_SOURCE_DIR "/../tools/opkg/opkg-compat.sh");

TEST(PackageDatabase, StatusFileRules) {
  harness::ScratchDir scratch;
  const std::string root = scratch / "root", ok = "Status: install ok installed\n";
  mkdirs(root + "/var/lib/opkg");
  selvane::PackageManager manager(root);
  const Packages& packages = manager.getInstalledPackages();  // the member: shows every refresh
  EXPECT_TRUE(packages.empty()) << "nothing is read before a refresh";
  // One status file with a stanza for each rule, in order.
  harness::writeFile(root + "/var/lib/opkg/status",
                     "Package: a\n" + ok +  // without Version: its installed flag carries over
                         "\nPackage: b\nVersion: 2\nStatus: deinstall ok not-installed\n"
                         "\nPackage: c\nVersion: 3\nStatus: install ok unpacked\n"
                         "\nPackage: d\nVersion: 4\nStatus: install ok half-installed\n"
                         "\nPackage: e\nVersion: 5\nStatus: install ok  installed\n"
                         "\nPackage: vindal-manifest\nVersion: 6\n" +
                         ok +                               // left out
                         "\nPackage:c\nVersion:7\n" + ok +  // the later one wins
                         "\n  Package  :  f  \n Version : 8 \n" + ok +
                         "\npackage: g\nVersion: 9\n" + ok +  // keys are case-sensitive
                         // A continuation line with a colon is a field like any other.
                         "\nPackage: x\nDescription: x\n Package: h\nVersion: 10\n" + ok +
                         // Left out only when an empty line closes its stanza.
                         "\nPackage: vindal-manifest\nVersion: 11\nStatus: installed");
  manager.refreshInstalledPackages();
  EXPECT_EQ(
      packages,
      (Packages{
          {"b", "2"}, {"c", "7"}, {"e", "5"}, {"f", "8"}, {"h", "10"}, {"vindal-manifest", "11"}}));
  harness::LogCapture log;
  ASSERT_EQ(unlink((root + "/var/lib/opkg/status").c_str()), 0);
  manager.refreshInstalledPackages();
  EXPECT_TRUE(packages.empty());
  EXPECT_EQ(log.texts(), Lines{"W PackageManager:refreshInstalledPackages:reason=statusFileMissing:"
                               "Could not find /var/lib/opkg/status in the target FS."});
}

class PackageOperations : public ::testing::Test {
 protected:
  void SetUp() override {
    SELVANE_REQUIRE_ROOT();
    // Once per process, inside its private namespace; /var/local/lib holds the install scratch.
    static const int hostReady = [] {
      harness::makeHostPathWritable("/usr/bin");
      harness::makeHostPathWritable("/var");
      harness::writeFile("/usr/bin/opkg", kOpkg, 0755);
      return harness::shell("mkdir -p /var/local/lib");
    }();
    ASSERT_EQ(hostReady, 0);
    harness::makeBusyboxRoot(root);
    harness::writeFile(root + "/usr/bin/opkg-cl", kOpkg, 0755);
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
  // Nothing stays mounted below the root, nor the scratch directory of installs.
  void expectReleased() const {
    EXPECT_EQ(harness::mountsUnder(root), Lines{});
    EXPECT_FALSE(exists("/var/local/lib/selvane"));
  }

  harness::ScratchDir scratch;
  const std::string root = scratch / "root", pkgs = scratch.path();
  selvane::PackageManager manager{root};
  harness::LogCapture log;
};

TEST_F(PackageOperations, InstallConfigureAndVerify) {
  fixtures::PackageRecipe base, app, noSums;
  base.name = "base-files", app.name = "vindal-app", noSums.name = "z-nosums";
  base.files["/etc/base"] = app.files["/usr/share/vindal-app"] = "data\n";
  // Configured alone first, as a base package, and fails; then by the full run: fails once more,
  // then succeeds.
  base.scripts["postinst"] =
      "#!/bin/sh\nn=$(($(cat /var/n 2>/dev/null || echo 0) + 1))\necho $n > /var/n\n[ $n -ge 3 ]\n";
  app.architecture = "armv7a-vfp-neon";
  app.scripts["prerm"] = "#!/bin/sh\ntouch /removed\n";
  // The check sees the chroot as the library sets it up: environment, kernel file systems and the
  // host's /tmp, where this test's scratch directory lies.
  app.executables["/usr/local/bin/ota-sanity-check.sh"] =
      "#!/bin/sh\n[ \"$RUNLEVEL $SHELL $USER $PATH\" = 'X /bin/sh root "
      "/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin' ] && [ \"$(pwd)\" = / ] && "
      "[ -r /proc/self/status ] && [ -d /sys/kernel ] && [ -c /dev/null ] && [ -d '" +
      pkgs + "' ]\n";
  noSums.withSha256Sums = false;
  mkdirs(root + "/var/lib/opkg/lists/feed");  // feeds of another system must not survive
  mkdirs("/var/local/lib/selvane/leftover");  // an earlier run's scratch: taken over and removed
  for (const auto* recipe : {&app, &base, &noSums}) {
    const std::string package = fixtures::buildPackage(*recipe, pkgs);
    log.clear();
    ASSERT_TRUE(manager.installPackage(package, 60)) << recipe->name;
    EXPECT_EQ(ours(),
              Lines{"I PackageManager:installPackage:package=" + package + ":Installing package"});
    expectReleased();
  }
  EXPECT_FALSE(exists(root + "/var/lib/opkg/lists"));
  const std::string command = log.startingWith("D Executor:").at(0);
  const size_t at = command.find("--conf=") + 7;
  const std::string conf = command.substr(at, command.find(' ', at) - at);
  EXPECT_EQ(command,
            "D Executor:Executor:: /usr/bin/opkg --offline-root=" + root + " --conf=" + conf +
                " --tmp-dir=/var/local/lib/selvane --nodeps --force-depends " +
                "--force-downgrade --force-maintainer install " + pkgs + "/z-nosums_1.0_all.ipk");
  EXPECT_EQ(harness::readFile(conf),
            "arch all 1\narch any 6\narch noarch 11\narch arm 16\narch armv4 21\narch armv5 26\n"
            "arch armv5-vfp 31\narch armv5e 36\narch armv5e-vfp 41\narch armv6-vfp 46\n"
            "arch armv7a 51\narch armv7a-vfp 56\narch armv7a-vfp-neon 61\narch vindal 66\n"
            "dest root /\n\n");
  manager.refreshInstalledPackages();
  EXPECT_EQ(manager.getInstalledPackages(),
            (Packages{{"base-files", "1.0"}, {"vindal-app", "1.0"}, {"z-nosums", "1.0"}}));

  log.clear();
  ASSERT_TRUE(manager.configurePackages(0));
  expectReleased();
  EXPECT_EQ(ours(), (Lines{"D PackageManager:configurePackages::Configuring Packages",
                           "E PackageManager:configurePackagesFailed:attempt=0:"}));
  EXPECT_EQ(harness::readFile(root + "/var/n"), "3\n");

  log.clear();
  EXPECT_TRUE(manager.performSanityCheck(30));
  EXPECT_EQ(ours(), (Lines{"I " + kSanity + "starting:Running Sanity Check",
                           "I " + kSanity + "success:Sanity Check Success"}));
  expectReleased();

  const std::string verifying = "I PackageManager:verifyPackages:remove_bad=";
  const std::string good =
      "D PackageManager:sha256sums:reason=success,package_name=base-files:"
      "Successfully verified shasums for package.";
  const std::string bad =
      "W PackageManager:sha256sums:reason=failure,package_name=vindal-app:"
      "Failed to verify sha256sums for package, marking bad";
  EXPECT_TRUE(manager.verifyPackages(false, false));
  harness::writeFile(root + "/usr/share/vindal-app", "tampered\n");
  EXPECT_FALSE(verificationRuns()) << "a good outcome is cached";
  // The first bad package (in name order) decides and ends the pass.
  EXPECT_FALSE(manager.verifyPackages(false, true));
  EXPECT_EQ(ours(), (Lines{verifying + "false:Verifying package contents", good, bad}));
  // A failed pass is not cached; with removal every package is checked and the bad ones go.
  log.clear();
  EXPECT_FALSE(manager.verifyPackages(true, false));
  EXPECT_EQ(ours(), (Lines{verifying + "true:Verifying package contents", good, bad,
                           "I PackageManager:removePackage:package=vindal-app:Removing package",
                           "D PackageManager:sha256sums:reason=noshasums,package_name=z-nosums:"
                           "Failed to open sha256sums file for package, skipping"}));
  expectReleased();
  EXPECT_TRUE(exists(root + "/removed")) << "the target's own opkg removed it";
}

TEST_F(PackageOperations, FailuresAreLoggedAndReleaseEverything) {
  EXPECT_TRUE(manager.performSanityCheck(0));
  EXPECT_TRUE(log.contains("W " + kSanity + "skipped:Sanity Check Skipped"));
  harness::writeFile(root + "/usr/local/bin/ota-sanity-check.sh", "#!/bin/sh\nexec sleep 30\n",
                     0755);
  log.clear();
  EXPECT_FALSE(manager.performSanityCheck(1));
  EXPECT_TRUE(log.contains("E " + kSanity + "failed:Sanity Check Failed"));
  expectReleased();

  // A good outcome of an empty map is cached; a removal, even a failed one, clears it.
  EXPECT_TRUE(verificationRuns());
  EXPECT_FALSE(verificationRuns());
  EXPECT_FALSE(manager.removePackage("ghost", 0));
  EXPECT_TRUE(verificationRuns());
  EXPECT_FALSE(manager.installPackage(pkgs + "/missing.ipk", 0));
  EXPECT_TRUE(log.contains("E PackageManager:installError::Failed to install package"));
  // Without opkg-cl in the target every command fails to start.
  ASSERT_EQ(unlink((root + "/usr/bin/opkg-cl").c_str()), 0);
  log.clear();
  EXPECT_FALSE(manager.configurePackages(0));
  EXPECT_EQ(log.startingWith("E PackageManager:configurePackagesFailed:attempt=").size(), 3u);
  expectReleased();
}

}  // namespace
