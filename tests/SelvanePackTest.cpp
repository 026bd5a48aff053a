// selvane-pack, run as its users run it: signing real packages with keys made by openssl,
// writing manifests that the library reads back, and printing them.
#include <dirent.h>
#include <selvane/Manifest.h>
#include <selvane/PackageVerifier.h>
#include <selvane/protobuf/Manifest.pb.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>

#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

const std::string kTool = SELVANE_BINARY_DIR "/bin/selvane-pack";

struct ToolRun {
  int status;
  std::string out, err;
};

std::string quote(const std::string& text) { return "'" + text + "'"; }

std::set<std::string> entries(const std::string& dir) {
  std::set<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) names.insert(e->d_name);
    closedir(d);
  }
  return names;
}

class SelvanePackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "selvane-pack is not built";
  }

  ToolRun run(const std::string& arguments) {
    ToolRun result;
    const std::string err = scratch / "stderr";
    result.status = harness::shell(kTool + " " + arguments + " 2>" + quote(err), &result.out);
    result.err = harness::readFile(err);
    return result;
  }

  std::string package(const std::string& name, const std::string& version) {
    fixtures::PackageRecipe recipe;
    recipe.name = name;
    recipe.version = version;
    recipe.files["/usr/share/" + name + "/README"] = name + " " + version + "\n";
    return fixtures::buildPackage(recipe, dir.path());
  }

  // Made on first use: key generation is the slowest step of these tests.
  static const fixtures::KeyPair& keyA() { return fixtures::testKeyPair("a"); }
  static const fixtures::KeyPair& keyB() { return fixtures::testKeyPair("b"); }
  harness::ScratchDir dir, scratch;
};

TEST_F(SelvanePackTest, SignsExactlyWhatOpensslSignsAndTheVerifierChecks) {
  const std::string pkg = package("alpha", "1.0-r2");
  ASSERT_EQ(chmod(pkg.c_str(), 0640), 0);
  const std::string original = harness::readFile(pkg);

  const ToolRun signing = run("sign --key " + quote(keyA().privateKey) + " " + quote(pkg));
  ASSERT_EQ(signing.status, 0) << signing.err;
  EXPECT_EQ(signing.out + signing.err, "");
  EXPECT_EQ(fixtures::memberData(pkg, "signature"),
            fixtures::opensslSignature(pkg, keyA().privateKey));
  std::string members;
  harness::shell("ar t " + quote(pkg), &members);
  EXPECT_EQ(members, "debian-binary\ncontrol.tar.gz\ndata.tar.gz\nsignature\n");
  harness::ScratchDir before;
  harness::writeFile(before / "p.ipk", original);
  for (const char* member : {"debian-binary", "control.tar.gz", "data.tar.gz"})
    EXPECT_EQ(fixtures::memberData(pkg, member), fixtures::memberData(before / "p.ipk", member));
  struct stat status;
  ASSERT_EQ(stat(pkg.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);

  selvane::PackageVerifier a(keyA().publicKey), b(keyB().publicKey);
  EXPECT_TRUE(a.verifyPackage(pkg));
  EXPECT_FALSE(b.verifyPackage(pkg));
  EXPECT_EQ(entries(dir.path()), (std::set<std::string>{".", "..", "alpha_1.0-r2_all.ipk"}));
}

TEST_F(SelvanePackTest, SigningAgainReplacesTheSignatureAndOutputCanGoElsewhere) {
  const std::string pkg = package("beta", "2");
  ASSERT_EQ(run("sign -k " + quote(keyA().privateKey) + " " + quote(pkg)).status, 0);
  const std::string signedByA = harness::readFile(pkg);
  const std::string copy = dir / "beta-b.ipk";
  const ToolRun again =
      run("sign --key " + quote(keyB().privateKey) + " --output " + quote(copy) + " " + quote(pkg));
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(harness::readFile(pkg), signedByA);

  std::string members;
  harness::shell("ar t " + quote(copy), &members);
  EXPECT_EQ(members, "debian-binary\ncontrol.tar.gz\ndata.tar.gz\nsignature\n");
  selvane::PackageVerifier a(keyA().publicKey), b(keyB().publicKey);
  EXPECT_TRUE(b.verifyPackage(copy));
  EXPECT_FALSE(a.verifyPackage(copy));
  EXPECT_TRUE(a.verifyPackage(pkg));

  // Signing through a symbolic link replaces the file it points to and keeps the link.
  const std::string link = dir / "beta-link.ipk";
  ASSERT_EQ(symlink(copy.c_str(), link.c_str()), 0);
  ASSERT_EQ(run("sign --key " + quote(keyA().privateKey) + " " + quote(link)).status, 0);
  struct stat status;
  ASSERT_EQ(lstat(link.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_TRUE(a.verifyPackage(copy));

  // A signature member in an unusual place is dropped, and the new one goes last.
  const std::string odd = dir / "odd.ipk";
  fixtures::writeArchive(odd, {{"signature", "old"},
                               {"debian-binary", fixtures::memberData(pkg, "debian-binary")},
                               {"control.tar.gz", fixtures::memberData(pkg, "control.tar.gz")},
                               {"signature", "older"},
                               {"data.tar.gz", fixtures::memberData(pkg, "data.tar.gz")}});
  ASSERT_EQ(run("sign --key " + quote(keyA().privateKey) + " " + quote(odd)).status, 0);
  members.clear();
  harness::shell("ar t " + quote(odd), &members);
  EXPECT_EQ(members, "debian-binary\ncontrol.tar.gz\ndata.tar.gz\nsignature\n");
  EXPECT_TRUE(a.verifyPackage(odd));
}

TEST_F(SelvanePackTest, SignRefusesBadKeysAndBadPackagesAndChangesNothing) {
  const std::string pkg = package("gamma", "1");
  const std::string gzip = dir / "control.tar.gz", noData = dir / "no-data.ipk";
  harness::writeFile(gzip, fixtures::memberData(pkg, "control.tar.gz"));
  fixtures::writeArchive(noData, {{"debian-binary", "2.0\n"},
                                  {"control.tar.gz", fixtures::memberData(pkg, "control.tar.gz")}});
  const std::string junk = dir / "junk.pem";
  harness::writeFile(junk, "not a key\n");
  const std::string key = quote(keyA().privateKey);

  const std::pair<std::string, std::string> cases[] = {
      {"--key " + quote(dir / "none.pem") + " " + quote(pkg),
       "cannot read key file " + dir / "none.pem" + ": No such file or directory"},
      {"--key " + quote(dir.path()) + " " + quote(pkg),
       "cannot read key file " + dir.path() + ": not a file"},
      {"--key " + quote(keyA().publicKey) + " " + quote(pkg),
       keyA().publicKey + " is not a PEM private key"},
      {"--key " + quote(keyA().certificate) + " " + quote(pkg),
       keyA().certificate + " is not a PEM private key"},
      {"--key " + quote(junk) + " " + quote(pkg), junk + " is not a PEM private key"},
      {"--key " + key + " " + quote(gzip), gzip + " is not a package: Unable to open archive"},
      {"--key " + key + " " + quote(noData),
       noData + " is not a package: it has no member data.tar.gz"},
      {"--key " + key + " " + quote(dir.path()),
       dir.path() + " is not a package: Package file not found"},
      {"--key " + key + " " + quote(dir / "none.ipk"),
       dir / "none.ipk" + " is not a package: Package file not found"},
  };
  const std::set<std::string> before = entries(dir.path());
  const std::string original = harness::readFile(pkg);
  for (const auto& [arguments, message] : cases) {
    const ToolRun result = run("sign " + arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_EQ(result.err, "selvane-pack: " + message + "\n");
    EXPECT_EQ(entries(dir.path()), before) << arguments;
  }
  EXPECT_EQ(harness::readFile(pkg), original);
}

TEST_F(SelvanePackTest, AnUnwritableOutputLeavesNothingBehind) {
  const std::string pkg = package("delta", "1");
  const std::string original = harness::readFile(pkg);
  const std::string sub = dir / "sub";
  ASSERT_EQ(mkdir(sub.c_str(), 0755), 0);
  const std::string key = quote(keyA().privateKey);

  ToolRun result =
      run("sign --key " + key + " --output " + quote(dir / "missing/x.ipk") + " " + quote(pkg));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "selvane-pack: cannot create " + dir / "missing/x.ipk" +
                            ": No such file or directory\n");
  result = run("sign --key " + key + " --output " + quote(sub) + " " + quote(pkg));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "selvane-pack: cannot write " + sub + ": Is a directory\n");
  result =
      run("manifest --version 1 --base-url http://u --output " + quote(sub) + " " + quote(pkg));
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err.substr(result.err.find('\n') + 1),
            "selvane-pack: cannot write " + sub + ": Is a directory\n");

  EXPECT_EQ(entries(dir.path()), (std::set<std::string>{".", "..", "delta_1_all.ipk", "sub"}));
  EXPECT_EQ(entries(sub), (std::set<std::string>{".", ".."}));
  EXPECT_EQ(harness::readFile(pkg), original);
}

TEST_F(SelvanePackTest, AReadOnlyFileSystemIsReported) {
  SELVANE_REQUIRE_ROOT();
  const std::string pkg = package("epsilon", "1");
  const std::string ro = dir / "ro";
  ASSERT_EQ(mkdir(ro.c_str(), 0755), 0);
  ASSERT_EQ(mount("ro", ro.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
  const ToolRun result = run("manifest --version 1 --base-url http://u --output " +
                             quote(ro + "/m") + " " + quote(pkg));
  EXPECT_EQ(result.status, 1);
  EXPECT_NE(result.err.find("selvane-pack: cannot create " + ro + "/m: Read-only file system\n"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(umount(ro.c_str()), 0);
}

TEST_F(SelvanePackTest, ManifestRoundTripsThroughTheLibrary) {
  std::vector<std::string> packages = {package("base-files", "3.0.14-r89"),
                                       package("kernel", "5.10.0+git1"),
                                       package("busybox", "1.35.0")};
  for (const std::string& pkg : packages)
    ASSERT_EQ(run("sign --key " + quote(keyA().privateKey) + " " + quote(pkg)).status, 0);
  for (const std::string base :
       {"https://updates.example/rel/2024.06", "https://updates.example/rel/2024.06/"}) {
    const std::string manifestPath = dir / "manifest.pb";
    std::string arguments =
        "manifest --version 2024.06 --base-url " + quote(base) + " --output " + quote(manifestPath);
    for (const std::string& pkg : packages) arguments += " " + quote(pkg);
    const ToolRun result = run(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");

    const selvane::Manifest manifest(manifestPath);
    EXPECT_EQ(manifest.getVersion(), "2024.06");
    ASSERT_EQ(manifest.getPackages().size(), packages.size());
    const char* const names[] = {"base-files", "kernel", "busybox"};
    const char* const versions[] = {"3.0.14-r89", "5.10.0+git1", "1.35.0"};
    auto entry = manifest.getPackages().begin();
    for (size_t i = 0; i < packages.size(); ++i, ++entry) {
      EXPECT_EQ(entry->getName(), names[i]);
      EXPECT_EQ(entry->getVersion(), versions[i]);
      EXPECT_EQ(manifest.getPackageVersion(names[i]), versions[i]);
      EXPECT_EQ(entry->getSize(), harness::readFile(packages[i]).size());
      const std::string file = packages[i].substr(packages[i].rfind('/') + 1);
      EXPECT_EQ(entry->getURL(), "https://updates.example/rel/2024.06/" + file);
      std::string sum;
      harness::shell("sha256sum " + quote(packages[i]), &sum);
      EXPECT_EQ(entry->getSHA256(), sum.substr(0, 64));
    }
  }
}

TEST_F(SelvanePackTest, ManifestRefusesDuplicatesAndNonPackagesAndKeepsTheOldFile) {
  const std::string alpha = package("alpha", "1"), beta = package("beta", "1");
  const std::string otherAlpha = dir / "alpha-again.ipk";
  harness::shell("cp " + quote(alpha) + " " + quote(otherAlpha));
  const std::string text = dir / "notes.txt";
  harness::writeFile(text, "release notes\n");
  const std::string out = dir / "manifest.pb";
  harness::writeFile(out, "the previous manifest");
  for (const std::string& pkg : {alpha, beta, otherAlpha})
    ASSERT_EQ(run("sign --key " + quote(keyA().privateKey) + " " + quote(pkg)).status, 0);

  const std::string prefix =
      "manifest --version 2 --base-url http://u --output " + quote(out) + " ";
  const std::pair<std::string, std::string> cases[] = {
      {quote(alpha) + " " + quote(beta) + " " + quote(otherAlpha),
       "duplicate package name alpha (" + alpha + " and " + otherAlpha + ")"},
      {quote(alpha) + " " + quote(alpha),
       "duplicate package name alpha (" + alpha + " and " + alpha + ")"},
      {quote(beta) + " " + quote(text), text + " is not a package: Unrecognized archive format"},
      {quote(dir / "none.ipk"), "cannot read " + dir / "none.ipk" + ": No such file or directory"},
      {quote(dir.path()), dir.path() + " is not a package: not a file"},
  };
  const std::set<std::string> before = entries(dir.path());
  for (const auto& [arguments, message] : cases) {
    const ToolRun result = run(prefix + arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_EQ(result.err, "selvane-pack: " + message + "\n");
    EXPECT_EQ(entries(dir.path()), before);
    EXPECT_EQ(harness::readFile(out), "the previous manifest");
  }
}

TEST_F(SelvanePackTest, ManifestWarnsAboutUnsignedPackages) {
  const std::string pkg = package("zeta", "1");
  const ToolRun result = run("manifest -v 1 -u http://u -o " + quote(dir / "m") + " " + quote(pkg));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err,
            "selvane-pack: warning: " + pkg + " has no signature; devices will refuse it\n");
}

std::string writeManifest(const std::string& path, const std::string& version,
                          const std::vector<std::vector<std::string>>& packages) {
  ::Manifest message;
  message.set_version(version);
  for (const auto& p : packages) {
    ::Package* entry = message.add_packages();
    entry->set_name(p[0]);
    entry->set_version(p[1]);
    entry->set_size(std::stoull(p[2]));
    entry->set_url(p[3]);
    entry->set_sha256(p[4]);
  }
  harness::writeFile(path, message.SerializeAsString());
  return path;
}

TEST_F(SelvanePackTest, ShowPrintsTextAndJson) {
  const std::string path =
      writeManifest(dir / "m", "2024.06",
                    {{"base-files", "3.0", "6000000000", "https://u/b.ipk", "ab12"},
                     {"odd \"name\"\\", "1\t\x01\xc3\xa9\xff", "0", "u", "s"}});
  ToolRun result = run("show " + quote(path));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      result.out,
      "version: 2024.06\npackages: 2\n"
      "- name: base-files\n  version: 3.0\n  size: 6000000000\n  url: https://u/b.ipk\n  sha256: "
      "ab12\n"
      "- name: odd \"name\"\\\n  version: 1\t\x01\xc3\xa9\xff\n  size: 0\n  url: u\n  sha256: s\n");

  result = run("show --json " + quote(path));
  ASSERT_EQ(result.status, 0) << result.err;
  const std::string json =
      "{\n  \"version\": \"2024.06\",\n  \"packages\": [\n"
      "    {\n      \"name\": \"base-files\",\n      \"version\": \"3.0\",\n      \"size\": "
      "6000000000,\n"
      "      \"url\": \"https://u/b.ipk\",\n      \"sha256\": \"ab12\"\n    },\n"
      "    {\n      \"name\": \"odd \\\"name\\\"\\\\\",\n      \"version\": "
      "\"1\\u0009\\u0001\xc3\xa9\\u00ff\",\n"
      "      \"size\": 0,\n      \"url\": \"u\",\n      \"sha256\": \"s\"\n    }\n  ]\n}\n";
  EXPECT_EQ(result.out, json);
  if (harness::shell("command -v node >/dev/null") == 0) {
    harness::writeFile(dir / "out.json", result.out);
    EXPECT_EQ(harness::shell(
                  "node -e 'JSON.parse(require(\"fs\").readFileSync(process.argv[1], \"utf8\"))' " +
                  quote(dir / "out.json")),
              0);
  }

  result = run("show --json " + quote(writeManifest(dir / "empty", "1", {})));
  EXPECT_EQ(result.out, "{\n  \"version\": \"1\",\n  \"packages\": []\n}\n");
}

TEST_F(SelvanePackTest, ShowReportsTheLibrarysErrors) {
  const std::string dup =
      writeManifest(dir / "dup", "1", {{"a", "1", "1", "u", "s"}, {"a", "2", "1", "u", "s"}});
  harness::writeFile(dir / "empty", "");
  const std::pair<std::string, std::string> cases[] = {
      {dup, "Potential duplicate entries in manifest file: " + dup},
      {dir / "empty", "Failed to parse file: " + dir / "empty"},
      {dir / "none", "File does not exist: " + dir / "none"},
  };
  for (const auto& [path, message] : cases) {
    const ToolRun result = run("show " + quote(path));
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, "selvane-pack: " + message + "\n");
  }
}

TEST_F(SelvanePackTest, BadUsageExitsWithTwo) {
  for (const std::string arguments :
       {"", "frobnicate", "sign pkg", "sign --key k", "manifest --version 1 x", "show", "show a b",
        "show --bogus m"}) {
    const ToolRun result = run(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_NE(result.err.find("usage: selvane-pack sign"), std::string::npos) << arguments;
  }
  const ToolRun help = run("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("selvane-pack manifest --version VERSION"), std::string::npos);
}

}  // namespace
