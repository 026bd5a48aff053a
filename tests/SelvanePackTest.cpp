// selvane-pack, run as its users run it: signing real packages with keys made by openssl,
// writing manifests that the library reads back, and printing them.
#include <selvane/Manifest.h>
#include <selvane/ManifestVerifier.h>
#include <selvane/PackageVerifier.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

using harness::quote;

const std::string kTool = SELVANE_BINARY_DIR "/bin/selvane-pack";
const std::string kAllMembers = "debian-binary\ncontrol.tar.gz\ndata.tar.gz\nsignature\n";

const fixtures::KeyPair& keyA() { return fixtures::testKeyPair("a"); }
const fixtures::KeyPair& keyB() { return fixtures::testKeyPair("b"); }

// What a command line prints, such as `ar t PACKAGE`.
std::string output(const std::string& command) {
  std::string out;
  harness::shell(command, &out);
  return out;
}

struct ToolRun {
  int status;
  std::string out, err;
};

class SelvanePackTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(kTool.c_str(), X_OK) != 0) GTEST_SKIP() << "selvane-pack is not built";
  }

  ToolRun run(const std::string& arguments) {
    ToolRun result;
    result.status = harness::shell(
        SELVANE_TOOL_PREFIX + kTool + " " + arguments + " 2>" + quote(errors), &result.out);
    result.err = harness::readFile(errors);
    return result;
  }
  ToolRun sign(const std::string& keyFile, const std::string& package) {
    return run("sign --key " + quote(keyFile) + " " + quote(package));
  }

  std::string package(const std::string& name, const std::string& version) {
    fixtures::PackageRecipe recipe;
    recipe.name = name;
    recipe.version = version;
    recipe.files["/usr/share/" + name + "/README"] = name + " " + version + "\n";
    return fixtures::buildPackage(recipe, dir.path());
  }

  harness::ScratchDir dir, scratch;
  const std::string errors = scratch / "stderr";
};

TEST_F(SelvanePackTest, SignsExactlyWhatOpensslSignsAndReplacesOldSignatures) {
  const std::string pkg = package("alpha", "1.0-r2"), copy = dir / "alpha-b.ipk";
  ASSERT_EQ(chmod(pkg.c_str(), 0640), 0);
  const std::string expected = fixtures::opensslSignature(pkg, keyA().privateKey);
  const ToolRun signing = run("sign -k " + quote(keyA().privateKey) + " " + quote(pkg));
  ASSERT_EQ(signing.status, 0) << signing.err;
  EXPECT_EQ(signing.out + signing.err, "");
  EXPECT_EQ(fixtures::memberData(pkg, "signature"), expected);
  EXPECT_EQ(output("ar t " + quote(pkg)), kAllMembers);
  struct stat status;
  ASSERT_EQ(stat(pkg.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640u);
  EXPECT_EQ(output("ls -A " + quote(dir.path())), "alpha_1.0-r2_all.ipk\n");
  // Accepted, so the signed members are unchanged as well.
  selvane::PackageVerifier a(keyA().publicKey), b(keyB().publicKey);
  EXPECT_TRUE(a.verifyPackage(pkg));
  EXPECT_FALSE(b.verifyPackage(pkg));

  // Signing again, into another file: the signature is replaced there, the input stays.
  const std::string signedByA = harness::readFile(pkg);
  ASSERT_EQ(
      run("sign --key " + quote(keyB().privateKey) + " --output " + quote(copy) + " " + quote(pkg))
          .status,
      0);
  EXPECT_EQ(harness::readFile(pkg), signedByA);
  EXPECT_EQ(output("ar t " + quote(copy)), kAllMembers);
  EXPECT_TRUE(b.verifyPackage(copy));
  EXPECT_FALSE(a.verifyPackage(copy));

  // Signing through a symbolic link replaces the file it points to and keeps the link.
  const std::string link = dir / "alpha-link.ipk";
  ASSERT_EQ(symlink(copy.c_str(), link.c_str()), 0);
  ASSERT_EQ(sign(keyA().privateKey, link).status, 0);
  ASSERT_EQ(lstat(link.c_str(), &status), 0);
  EXPECT_TRUE(S_ISLNK(status.st_mode));
  EXPECT_TRUE(a.verifyPackage(copy));

  // Signature members in unusual places are dropped, and the new one goes last.
  const std::string odd = dir / "odd.ipk";
  harness::writeFile(
      odd, fixtures::arArchive({{"signature", "old"},
                                {"debian-binary", fixtures::memberData(pkg, "debian-binary")},
                                {"control.tar.gz", fixtures::memberData(pkg, "control.tar.gz")},
                                {"signature", "older"},
                                {"data.tar.gz", fixtures::memberData(pkg, "data.tar.gz")}}));
  ASSERT_EQ(sign(keyA().privateKey, odd).status, 0);
  EXPECT_EQ(output("ar t " + quote(odd)), kAllMembers);
  EXPECT_TRUE(a.verifyPackage(odd));
}

// Every failure exits with 1 and one line on stderr, and leaves every file as it was.
TEST_F(SelvanePackTest, FailuresAreReportedAndChangeNothing) {
  const std::string alpha = package("alpha", "1"), beta = package("beta", "1"),
                    otherAlpha = dir / "alpha-again.ipk", gzip = dir / "control.tar.gz",
                    noData = dir / "no-data.ipk", text = dir / "notes.txt", none = dir / "none",
                    sub = dir / "sub", ro = dir / "ro", out = dir / "manifest.pb",
                    key = keyA().privateKey;
  ASSERT_EQ(sign(key, alpha).status, 0);
  ASSERT_EQ(sign(key, beta).status, 0);
  ASSERT_EQ(harness::shell("cp " + quote(alpha) + " " + quote(otherAlpha) + " && mkdir " +
                           quote(sub) + " " + quote(ro)),
            0);
  harness::writeFile(gzip, fixtures::memberData(alpha, "control.tar.gz"));
  harness::writeFile(noData, fixtures::arArchive({{"debian-binary", "2.0\n"},
                                                  {"control.tar.gz", harness::readFile(gzip)}}));
  harness::writeFile(text, "release notes\n");
  harness::writeFile(out, "the previous manifest");
  const auto signing = [](const std::string& keyFile, const std::string& pkg,
                          const std::string& output = "") {
    return "sign --key " + quote(keyFile) + (output.empty() ? "" : " -o " + quote(output)) + " " +
           quote(pkg);
  };
  const auto manifest = [&](const std::string& packages, const std::string& output) {
    return "manifest --version 2 --base-url http://u --output " + quote(output) + " " + packages;
  };
  std::vector<std::pair<std::string, std::string>> cases = {
      {signing(none, alpha), "cannot read key file " + none + ": No such file or directory"},
      {signing(dir.path(), alpha), "cannot read key file " + dir.path() + ": not a file"},
      {signing(keyA().publicKey, alpha), keyA().publicKey + " is not a PEM private key"},
      {signing(keyA().certificate, alpha), keyA().certificate + " is not a PEM private key"},
      {signing(key, gzip), gzip + " is not a package: Unable to open archive"},
      {signing(key, noData), noData + " is not a package: it has no member data.tar.gz"},
      {signing(key, dir.path()), dir.path() + " is not a package: Package file not found"},
      {signing(key, none), none + " is not a package: Package file not found"},
      {signing(key, alpha, dir / "missing/x.ipk"),
       "cannot create " + dir / "missing/x.ipk" + ": No such file or directory"},
      {signing(key, alpha, sub), "cannot write " + sub + ": Is a directory"},
      {manifest(quote(alpha), sub), "cannot write " + sub + ": Is a directory"},
      {manifest(quote(alpha) + " " + quote(beta) + " " + quote(otherAlpha), out),
       "duplicate package name alpha (" + alpha + " and " + otherAlpha + ")"},
      {manifest(quote(alpha) + " " + quote(alpha), out),
       "duplicate package name alpha (" + alpha + " and " + alpha + ")"},
      {manifest(quote(beta) + " " + quote(text), out),
       text + " is not a package: Unrecognized archive format"},
      {manifest(quote(none), out), "cannot read " + none + ": No such file or directory"},
      {manifest(quote(dir.path()), out), dir.path() + " is not a package: not a file"},
      {"sign-manifest --key " + quote(keyA().publicKey) + " " + quote(out),
       keyA().publicKey + " is not a PEM private key"},
      {"sign-manifest -k " + quote(key) + " " + quote(text), "Failed to parse file: " + text},
      {"show " + quote(none), "File does not exist: " + none},
      {"show " + quote(text), "Failed to parse file: " + text},
  };
  const bool readOnlyMount = harness::privateNamespace();  // needs root
  if (readOnlyMount) {
    ASSERT_EQ(mount("ro", ro.c_str(), "tmpfs", MS_RDONLY, nullptr), 0);
    cases.push_back(
        {manifest(quote(alpha), ro + "/m"), "cannot create " + ro + "/m: Read-only file system"});
  }
  const std::string snapshot = "cd " + quote(dir.path()) + " && ls -AR && sha256sum *.*";
  const std::string before = output(snapshot);
  for (const auto& [arguments, message] : cases) {
    const ToolRun result = run(arguments);
    EXPECT_EQ(result.status, 1) << arguments;
    EXPECT_EQ(result.err, "selvane-pack: " + message + "\n");
    EXPECT_EQ(result.out, "");
  }
  EXPECT_EQ(output(snapshot), before);
  if (readOnlyMount) {
    EXPECT_EQ(umount(ro.c_str()), 0);
  }
}

TEST_F(SelvanePackTest, ManifestRoundTripsThroughTheLibrary) {
  const char* const names[] = {"base-files", "kernel", "busybox"};
  const char* const versions[] = {"3.0.14-r89", "5.10.0+git1", "1.35.0"};
  std::string packages;
  for (size_t i = 0; i < 3; ++i) packages += " " + quote(package(names[i], versions[i]));
  const std::string unsignedOne = dir / "busybox_1.35.0_all.ipk", path = dir / "manifest.pb";
  for (const std::string name : {"base-files_3.0.14-r89_all.ipk", "kernel_5.10.0+git1_all.ipk"})
    ASSERT_EQ(sign(keyA().privateKey, dir / name).status, 0);
  // With and without a slash after the base URL, long options and short ones.
  for (const std::string options :
       {"--version 2024.06 --base-url https://u.example/2024.06 --output",
        "-v 2024.06 -u https://u.example/2024.06/ -o"}) {
    const ToolRun result = run("manifest " + options + " " + quote(path) + packages);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "selvane-pack: warning: " + unsignedOne +
                              " has no signature; devices will refuse it\n");

    const selvane::Manifest manifest(path);
    EXPECT_EQ(manifest.getVersion(), "2024.06");
    ASSERT_EQ(manifest.getPackages().size(), 3u);
    auto entry = manifest.getPackages().begin();
    for (size_t i = 0; i < 3; ++i, ++entry) {
      const std::string file = std::string(names[i]) + "_" + versions[i] + "_all.ipk";
      EXPECT_EQ(entry->getName(), names[i]);
      EXPECT_EQ(entry->getVersion(), versions[i]);
      EXPECT_EQ(manifest.getPackageVersion(names[i]), versions[i]);
      EXPECT_EQ(entry->getSize(), harness::readFile(dir / file).size());
      EXPECT_EQ(entry->getURL(), "https://u.example/2024.06/" + file);
      EXPECT_EQ(entry->getSHA256(), output("sha256sum " + quote(dir / file)).substr(0, 64));
    }
  }
}

TEST_F(SelvanePackTest, SignedManifestsVerifyInTheLibraryAndWithOpenssl) {
  const std::string manifest = dir / "manifest.pb";
  ASSERT_EQ(
      run("manifest -v 2 -u https://u -o " + quote(manifest) + " " + quote(package("alpha", "1")))
          .status,
      0);
  for (const fixtures::KeyPair* key : {&keyA(), &fixtures::testEcKeyPair("ec")}) {
    harness::ScratchDir keys;
    ASSERT_EQ(harness::shell("cp " + quote(key->publicKey) + " " + quote(keys.path())), 0);
    const selvane::ManifestVerifier verifier(keys.path());
    // The default output beside the manifest, and one named with --output.
    for (const std::string& named : {std::string(), dir / "other.sig"}) {
      const std::string signature = named.empty() ? manifest + ".sig" : named;
      const ToolRun signing =
          run("sign-manifest --key " + quote(key->privateKey) +
              (named.empty() ? "" : " --output " + quote(named)) + " " + quote(manifest));
      ASSERT_EQ(signing.status, 0) << signing.err;
      EXPECT_EQ(signing.out + signing.err, "");
      EXPECT_TRUE(verifier.verifyManifest(manifest, signature)) << key->privateKey;
      EXPECT_EQ(output("openssl dgst -sha256 -verify " + quote(key->publicKey) + " -signature " +
                       quote(signature) + " " + quote(manifest)),
                "Verified OK\n");
    }
  }
}

TEST_F(SelvanePackTest, ShowPrintsTextAndJson) {
  const selvane::Manifest manifest("2024.06",
                                   {{"base-files", "3.0", 6000000000ULL, "https://u/b.ipk", "ab12"},
                                    {"odd \"name\"\\", "1\t\x01\xc3\xa9\xff", 0, "u", "s"}});
  const std::string path = dir / "m";
  harness::writeFile(path, manifest.serialize());
  ToolRun result = run("show " + quote(path));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "version: 2024.06\npackages: 2\n"
            "- name: base-files\n  version: 3.0\n  size: 6000000000\n  url: https://u/b.ipk\n"
            "  sha256: ab12\n"
            "- name: odd \"name\"\\\n  version: 1\t\x01\xc3\xa9\xff\n  size: 0\n  url: u\n"
            "  sha256: s\n");
  result = run("show --json " + quote(path));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out,
            "{\n  \"version\": \"2024.06\",\n  \"packages\": [\n"
            "    {\n      \"name\": \"base-files\",\n      \"version\": \"3.0\",\n"
            "      \"size\": 6000000000,\n      \"url\": \"https://u/b.ipk\",\n"
            "      \"sha256\": \"ab12\"\n    },\n"
            "    {\n      \"name\": \"odd \\\"name\\\"\\\\\",\n"
            "      \"version\": \"1\\t\\u0001\xc3\xa9\xef\xbf\xbd\",\n"
            "      \"size\": 0,\n      \"url\": \"u\",\n      \"sha256\": \"s\"\n    }\n  ]\n}\n");
  harness::writeFile(path,
                     "\x0a\x01"
                     "1");  // version 1, no packages
  result = run("show --json " + quote(path));
  EXPECT_EQ(result.out, "{\n  \"version\": \"1\",\n  \"packages\": []\n}\n");
}

}  // namespace
