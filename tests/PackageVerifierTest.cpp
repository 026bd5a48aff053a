// Package signatures with real RSA keys, real packages and signatures made by the openssl
// command line, independently of the library.
#include <selvane/PackageVerifier.h>
#include <selvane/PackageVerifierSet.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <thread>

#include "ErrorText.h"
#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

using harness::quote;
using Members = std::vector<std::pair<std::string, std::string>>;

std::string failedLine(const std::string& package, const std::string& detail) {
  return "E PackageVerifier:verifyPackage:reason=VerifierFailed,result=Bad,package=" + package +
         ",detail=" + detail + ":";
}

std::string missingMemberLine(const std::string& member) {
  return "D PackageVerifier:FailedToAddFile:file=" + member + ":";
}

// Made on first use: key generation is the slowest step of these tests.
const fixtures::KeyPair& keyA() { return fixtures::testKeyPair("a"); }
const fixtures::KeyPair& keyB() { return fixtures::testKeyPair("b"); }

// One package, unsigned and signed with key A and with key B, shared by every test.
class PackageVerifierTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    shared = std::make_unique<harness::ScratchDir>();
    fixtures::PackageRecipe recipe;
    recipe.name = "hello";
    recipe.files["/usr/share/hello/greeting"] = "hello, world\n";
    recipe.scripts["postinst"] = "#!/bin/sh\nexit 0\n";
    unsignedPackage = fixtures::buildPackage(recipe, shared->path());
    signedByA = signedCopy("a");
    signedByB = signedCopy("b");
    for (const char* name : {"debian-binary", "control.tar.gz", "data.tar.gz", "signature"})
      membersOfA.emplace_back(name, fixtures::memberData(signedByA, name));
  }
  static void TearDownTestSuite() { shared.reset(); }
  static std::string signedCopy(const std::string& key) {
    const std::string path = *shared / ("hello-" + key + ".ipk");
    harness::shell("cp " + quote(unsignedPackage) + " " + quote(path));
    fixtures::signWithOpenssl(path, fixtures::testKeyPair(key).privateKey);
    return path;
  }

  inline static std::unique_ptr<harness::ScratchDir> shared;
  inline static std::string unsignedPackage, signedByA, signedByB;
  inline static Members membersOfA;  // in archive order
  harness::ScratchDir dir;
};

TEST_F(PackageVerifierTest, EachKeyAcceptsOnlyItsOwnSignatureInAnyThread) {
  harness::LogCapture log;
  selvane::PackageVerifier a(keyA().publicKey), b(keyB().publicKey);
  // Again and again, from several threads: a verifier keeps nothing from one package to the next.
  std::vector<int> results(4, -1);
  std::vector<std::thread> threads;
  for (int& result : results) {
    threads.emplace_back([&] {
      bool all = true;
      for (int i = 0; i < 20; ++i) {
        all = all && a.verifyPackage(signedByA) && !a.verifyPackage(signedByB) &&
              !a.verifyPackage(unsignedPackage) && b.verifyPackage(signedByB) &&
              !b.verifyPackage(signedByA);
      }
      result = all;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(results, std::vector<int>(4, 1));
  EXPECT_TRUE(log.texts().empty());
}

TEST_F(PackageVerifierTest, TheNamesAreExportedWithCLinkage) {
  std::string symbols;
  harness::shell("nm -D --defined-only '" SELVANE_BINARY_DIR "/lib/selvane/libselvane.so'",
                 &symbols);
  for (const char* name :
       {"DEB_BINARY_FILE", "CONTROL_FILE", "DATA_FILE", "SIGNATURE_FILE", "SHA1_DIGEST_NAME"})
    EXPECT_NE(symbols.find(std::string(" ") + name + "\n"), std::string::npos) << name;
  EXPECT_STREQ(SHA1_DIGEST_NAME, "SHA1");
}

// Archives made from the members of the package signed with key A, changed in one way each, and
// files that are no ar archive: what the verifier answers and logs.
TEST_F(PackageVerifierTest, ChangedPackagesAndOtherFiles) {
  struct Variant {
    std::string what, bytes;
    bool accepted;
    std::vector<std::string> log = {};
  };
  const std::string path = dir / "variant.ipk";
  const auto refused = [&](const char* detail) {
    return std::vector<std::string>{failedLine(path, detail)};
  };
  const auto ar = fixtures::arArchive;
  const Members& m = membersOfA;
  const auto signedWith = [&](const std::string& signature) {
    return ar({m[0], m[1], m[2], {"signature", signature}});
  };
  const std::string good = m[3].second;
  std::string tarball;
  ASSERT_EQ(harness::shell("cd " + quote(dir.path()) + " && echo data > data && tar -cf - data",
                           &tarball),
            0);
  std::vector<Variant> variants = {
      {"signature first", ar({m[3], m[0], m[1], m[2]}), true},
      {"all reversed", ar({m[3], m[2], m[1], m[0]}), true},
      {"a member nobody asks for", ar({m[0], {"extra", "not signed"}, m[1], m[2], m[3]}), true},
      {"a later data member", ar({m[0], m[1], m[2], m[3], {"data.tar.gz", "never read"}}), true},
      {"an empty signature", signedWith(""), false},
      {"a signature by key B", signedWith(fixtures::memberData(signedByB, "signature")), false},
      {"a signature cut short", signedWith(good.substr(1)), false},
      {"a signature with a byte more", signedWith(good + "x"), false},
      {"a gzip file", m[1].second, false, refused("Unable to open archive")},
      {"a tar file", tarball, false, refused("Unable to open archive")},
      {"an empty file", "", false, refused("Unable to open archive")},
      {"text after the ar magic",
       "!<arch>\n---- this is no ar member header, only a line of text long enough", false,
       refused("A fatal error occurred while parsing the archive")},
      {"an ar archive without members", "!<arch>\n", false, {missingMemberLine("debian-binary")}},
  };
  for (size_t i = 0; i < m.size(); ++i) {
    Members changed = m, missing = m;
    changed[i].second[changed[i].second.size() / 2] ^= 0x20;
    missing.erase(missing.begin() + static_cast<long>(i));
    variants.push_back({"a changed byte in " + m[i].first, ar(changed), false});
    // A missing signed member is named and stops the check; a missing signature is just refused.
    variants.push_back({"no " + m[i].first, ar(missing), false,
                        std::vector<std::string>(i < 3, missingMemberLine(m[i].first))});
  }
  selvane::PackageVerifier verifier(keyA().publicKey);
  for (const Variant& variant : variants) {
    harness::writeFile(path, variant.bytes);
    harness::LogCapture log;
    EXPECT_EQ(verifier.verifyPackage(path), variant.accepted) << variant.what;
    EXPECT_EQ(log.texts(), variant.log) << variant.what;
    for (const harness::LogLine& line : log.lines())
      EXPECT_EQ(line.priority, line.text[0] == 'E' ? LOG_ERR : LOG_DEBUG) << line.text;
  }
}

TEST_F(PackageVerifierTest, OnlyAPemPublicKeyIsAKey) {
  const std::string junk = dir / "junk.pem";
  harness::writeFile(junk, "-----BEGIN PUBLIC KEY-----\nbm90IGEga2V5\n-----END PUBLIC KEY-----\n");
  const std::string notFound = "Unable to find the public key file",
                    notLoaded = "Unable to load the public key file";
  const std::pair<std::string, std::string> refused[] = {
      {dir / "missing.pem", notFound}, {dir.path(), notFound}, {keyA().certificate, notLoaded},
      {keyA().privateKey, notLoaded},  {junk, notLoaded},
  };
  for (const auto& [path, text] : refused)
    EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifier verifier(path); }), text) << path;
}

// For every byte of an ar archive, whether the signature covers it: everything but the
// modification time, owner, group and mode fields of each member header, the blanks that pad a
// size field after its digits, and the newline that pads an odd-sized member. The verifier reads
// none of these.
std::vector<bool> coveredBytes(const std::string& bytes) {
  std::vector<bool> covered(bytes.size(), true);
  size_t header = 8;
  while (header + 60 <= bytes.size()) {
    std::fill_n(covered.begin() + static_cast<long>(header) + 16, 32, false);
    const std::string sizeField = bytes.substr(header + 48, 10);
    const size_t digits = sizeField.find_first_not_of("0123456789");
    for (size_t i = header + 48 + digits; digits != std::string::npos && i < header + 58; ++i)
      covered[i] = false;
    const size_t size = std::stoul(sizeField);
    header += 60 + size;
    if (size % 2 == 1 && header < bytes.size()) covered[header++] = false;
  }
  return covered;
}

TEST_F(PackageVerifierTest, NoChangedTruncatedOrRandomPackageIsAccepted) {
  // The data member gets an odd size (gzip ignores trailing zeros), so that a padding byte is
  // exercised too.
  Members members(membersOfA.begin(), membersOfA.begin() + 3);
  if (members[2].second.size() % 2 == 0) members[2].second += '\0';
  const std::string package = dir / "mutant.ipk";
  harness::writeFile(package, fixtures::arArchive(members));
  fixtures::signWithOpenssl(package, keyA().privateKey);
  const std::string bytes = harness::readFile(package);
  const std::vector<bool> covered = coveredBytes(bytes);
  const auto uncovered = static_cast<size_t>(std::count(covered.begin(), covered.end(), false));
  ASSERT_LT(uncovered, 4 * 32 + 4 * 10 + 3u);

  selvane::PackageVerifier verifier(keyA().publicKey);
  ASSERT_TRUE(verifier.verifyPackage(package));
  const std::string mutant = dir / "mutant-changed.ipk";
  size_t acceptedUncovered = 0;
  for (size_t offset = 0; offset < bytes.size(); ++offset) {
    harness::writeFile(mutant, bytes.substr(0, offset));
    ASSERT_FALSE(verifier.verifyPackage(mutant)) << "truncated to " << offset;
    for (const unsigned char mask : {0x01, 0x80, 0xFF}) {
      std::string changed = bytes;
      changed[offset] = static_cast<char>(changed[offset] ^ mask);
      harness::writeFile(mutant, changed);
      const bool accepted = verifier.verifyPackage(mutant);
      if (covered[offset]) {
        ASSERT_FALSE(accepted) << "offset " << offset << " mask " << int(mask);
      }
      acceptedUncovered += accepted;
    }
  }
  // The bytes the signature leaves out really are ignored (for these masks they stay non-digits).
  EXPECT_EQ(acceptedUncovered, 3 * uncovered);

  std::mt19937 random(4242);
  for (int round = 0; round < 300; ++round) {
    std::string noise(random() % 2048, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    // Half of the inputs look like ar archives, some keep real headers with noise behind them.
    if (round % 2 == 0) noise = "!<arch>\n" + noise;
    if (round % 3 == 0) noise = bytes.substr(0, random() % bytes.size()) + noise;
    harness::writeFile(mutant, noise);
    EXPECT_FALSE(verifier.verifyPackage(mutant)) << "round " << round;
  }
}

long peakResidentKiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

TEST_F(PackageVerifierTest, MemoryStaysFlatForLargeMembers) {
  // Built by the shell, so that the large members never pass through this process.
  harness::writeFile(dir / "debian-binary", membersOfA[0].second);
  harness::writeFile(dir / "control.tar.gz", membersOfA[1].second);
  const std::string cd = "cd " + quote(dir.path()) + " && ";
  ASSERT_EQ(harness::shell(cd + "head -c 64M /dev/zero > data.tar.gz && ar rc big.ipk " +
                           "debian-binary control.tar.gz data.tar.gz"),
            0);
  fixtures::signWithOpenssl(dir / "big.ipk", keyA().privateKey);
  ASSERT_EQ(harness::shell(cd + "cp big.ipk huge-signature.ipk && head -c 64M /dev/zero > " +
                           "signature && ar r huge-signature.ipk signature"),
            0);

  selvane::PackageVerifier verifier(keyA().publicKey);
  ASSERT_TRUE(verifier.verifyPackage(signedByA));
  const long before = peakResidentKiB();
  EXPECT_TRUE(verifier.verifyPackage(dir / "big.ipk"));
  EXPECT_FALSE(verifier.verifyPackage(dir / "huge-signature.ipk"));
  EXPECT_LT(peakResidentKiB() - before, 8 * 1024);
}

TEST_F(PackageVerifierTest, AKeyDirectoryTrustsItsRegularFilesAndNothingElse) {
  for (const std::string& path : {keyA().publicKey, dir / "missing", std::string()}) {
    EXPECT_EQ(fixtures::errorText([&] { selvane::PackageVerifierSet set(path); }),
              path + " does not exist, or is not a directory");
  }
  harness::LogCapture log;
  selvane::PackageVerifierSet none(dir.path());
  EXPECT_FALSE(none.verifyPackage(signedByA));
  EXPECT_TRUE(log.texts().empty());

  const std::string keys = dir / "keys";
  ASSERT_EQ(harness::shell("mkdir -p " + quote(keys + "/nested") + " && cd " + quote(keys) +
                           " && cp " + quote(keyA().publicKey) + " a.pub && cp " +
                           quote(keyB().publicKey) + " nested/b.pub && cp " +
                           quote(keyA().certificate) + " a.crt && cp " + quote(keyA().privateKey) +
                           " a.key && echo 'keys of the release publishers' > README && ln -s " +
                           "a.pub a-link.pub && ln -s gone.pub dangling.pub && ln -s nested link"),
            0);
  const std::string prefix = "D PackageVerifierSet:PackageVerifierSet:reason=";
  const std::string invalid =
      ":Unable to create a verifier with this key file: Unable to load the public key file ";
  const std::string loaded = ":Able to create a verifier with this key file";
  log.clear();
  selvane::PackageVerifierSet set(keys);
  std::vector<std::string> lines = log.texts();
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines,
            (std::vector<std::string>{prefix + "invalidKey,path=" + keys + "/README" + invalid,
                                      prefix + "invalidKey,path=" + keys + "/a.crt" + invalid,
                                      prefix + "invalidKey,path=" + keys + "/a.key" + invalid,
                                      prefix + "success,path=" + keys + "/a-link.pub" + loaded,
                                      prefix + "success,path=" + keys + "/a.pub" + loaded}));
  EXPECT_TRUE(set.verifyPackage(signedByA));
  EXPECT_FALSE(set.verifyPackage(signedByB));  // its key is in the sub-directory

  // Any key may accept a package; every key reports its own failure.
  set.addKey(keyB().publicKey);
  log.clear();
  EXPECT_TRUE(set.verifyPackage(signedByB));
  EXPECT_FALSE(set.verifyPackage(unsignedPackage));
  EXPECT_TRUE(log.texts().empty());
  for (const std::string& noFile : {dir / "missing.ipk", dir.path()}) {
    log.clear();
    EXPECT_FALSE(set.verifyPackage(noFile));
    EXPECT_EQ(log.texts(),
              std::vector<std::string>(3, failedLine(noFile, "Package file not found")));
  }
}

}  // namespace
