// CheckPackageStructure against real packages and hand-made ar archives of other shapes.
#include <selvane/PackageStructure.h>
#include <selvane/PackageVerifier.h>

#include "Harness.h"
#include "PackageBuilder.h"
#include "PackageSigning.h"

namespace {

TEST(PackageStructureTest, OnlyTheFourMembersOnceEachPass) {
  harness::ScratchDir dir;
  const fixtures::KeyPair& key = fixtures::testKeyPair("a");
  fixtures::PackageRecipe recipe;
  recipe.name = "hello";
  recipe.files["/usr/bin/hello"] = "signed\n";
  const std::string good = fixtures::buildPackage(recipe, dir.path());
  fixtures::signWithOpenssl(good, key.privateKey);
  recipe.name = "evil";
  recipe.scripts["postinst"] = "#!/bin/sh\ntouch /pwned\n";
  const std::string evil = fixtures::buildPackage(recipe, dir.path());

  const auto member = [&](const std::string& name) {
    return std::make_pair(name, fixtures::memberData(good, name));
  };
  const auto debianBinary = member("debian-binary"), control = member("control.tar.gz"),
             data = member("data.tar.gz"), signature = member("signature");
  // The signed package with an unsigned control and data appended: the verifier reads the first
  // member of each name, an installer the last.
  const std::string appended = dir / "appended.ipk";
  harness::writeFile(
      appended,
      fixtures::arArchive({debianBinary,
                           control,
                           data,
                           signature,
                           {"control.tar.gz", fixtures::memberData(evil, "control.tar.gz")},
                           {"data.tar.gz", fixtures::memberData(evil, "data.tar.gz")}}));
  selvane::PackageVerifier verifier(key.publicKey);
  ASSERT_TRUE(verifier.verifyPackage(appended));

  const auto archive = [&](const std::string& name,
                           const std::vector<std::pair<std::string, std::string>>& members) {
    harness::writeFile(dir / name, fixtures::arArchive(members));
    return dir / name;
  };
  const std::string prefix = "E PackageStructure:CheckPackageStructure:package=";
  const struct {
    std::string package, log;  // log: the one line of a refusal
  } cases[] = {
      {good, ""},
      {archive("reordered.ipk", {signature, data, debianBinary, control}), ""},
      {appended, prefix + appended + ",member=control.tar.gz:Duplicate member"},
      {archive("two-signatures.ipk", {debianBinary, control, data, signature, signature}),
       prefix + dir / "two-signatures.ipk" + ",member=signature:Duplicate member"},
      {archive("extra.ipk", {debianBinary, control, data, {"postinst", "x"}, signature}),
       prefix + dir / "extra.ipk" + ",member=postinst:Unexpected member"},
      {archive("unsigned.ipk", {debianBinary, control, data}),
       prefix + dir / "unsigned.ipk" + ",member=signature:Missing member"},
      {archive("empty.ipk", {}),
       prefix + dir / "empty.ipk" + ",member=debian-binary:Missing member"},
      {dir / "missing.ipk",
       prefix + dir / "missing.ipk" + ",detail=not a regular file:Unable to read the archive"},
  };
  for (const auto& c : cases) {
    harness::LogCapture log;
    EXPECT_EQ(selvane::CheckPackageStructure(c.package), c.log.empty()) << c.package;
    EXPECT_EQ(log.startingWith("E "),
              c.log.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.log});
  }
  // Not an ar archive at all.
  harness::writeFile(dir / "control.tar.gz", control.second);
  harness::LogCapture log;
  EXPECT_FALSE(selvane::CheckPackageStructure(dir / "control.tar.gz"));
  EXPECT_EQ(log.startingWith(prefix + dir / "control.tar.gz" + ",detail=").size(), 1u);
}

}  // namespace
