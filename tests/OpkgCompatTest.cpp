// The opkg-compatible tool of tools/opkg: offline installs with busybox applets only, configure
// and remove inside a chroot, upgrades, and refusal of bad input.
#include <sys/stat.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

#include "Harness.h"
#include "OpkgTool.h"
#include "PackageBuilder.h"

namespace {

struct Result {
  int status;
  std::string out;
  std::string err;
};

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// The status file without the Installed-Time lines, which vary.
std::string withoutTimes(const std::string& status) {
  std::istringstream in(status);
  std::string result;
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, 15, "Installed-Time:") != 0) result += line + "\n";
  return result;
}

bool exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

class OpkgTool : public ::testing::Test {
 protected:
  void SetUp() override {
    root = scratch / "root";
    pkgs = scratch / "pkgs";
    tmp = scratch / "tmp";
    conf = scratch / "opkg.conf";
    fixtures::makeTargetRoot(root);
    ASSERT_EQ(harness::shell("mkdir -p '" + pkgs + "' '" + tmp + "'"), 0);
    harness::writeFile(conf, "arch all 1\narch armv7a 51\narch vindal 66\ndest root /\n\n");
  }

  Result run(const std::string& command) {
    Result result;
    result.status = harness::shell(command + " 2>'" + scratch / "stderr" + "'", &result.out);
    result.err = harness::readFile(scratch / "stderr");
    return result;
  }

  // The tool on the host against the offline root, with nothing but busybox's applets on PATH.
  Result offline(const std::string& args, const std::string& options = "") {
    const std::string defaults =
        " --offline-root='" + root + "' --conf='" + conf + "' --tmp-dir='" + tmp + "' ";
    return run("env -i PATH='" + root + "/bin' '" + root + "/bin/sh' '" + fixtures::opkgToolPath() +
               "'" + (options.empty() ? defaults : " " + options + " ") + args);
  }

  // The target's own opkg-cl under chroot, as the library runs it.
  Result inTarget(const std::string& args) {
    return run("env -i PATH=/usr/bin:/bin /usr/sbin/chroot '" + root + "' /usr/bin/opkg-cl " +
               args);
  }

  std::string build(const fixtures::PackageRecipe& recipe) {
    return fixtures::buildPackage(recipe, pkgs);
  }
  std::string status() { return harness::readFile(root + "/var/lib/opkg/status"); }
  std::string info(const std::string& file) {
    return harness::readFile(root + "/var/lib/opkg/info/" + file);
  }
  bool tmpIsEmpty() {
    std::string out;
    harness::shell("ls -A '" + tmp + "'", &out);
    return out.empty();
  }

  harness::ScratchDir scratch;
  std::string root, pkgs, tmp, conf;
};

fixtures::PackageRecipe helloSpec() {
  fixtures::PackageRecipe recipe;
  recipe.name = "hello";
  recipe.version = "1.0-r1";
  recipe.architecture = "vindal";
  recipe.files["/etc/hello.conf"] = "greeting=hi\n";
  recipe.executables["/usr/bin/hello"] = "#!/bin/sh\necho hi\n";
  recipe.scripts["postinst"] = "#!/bin/sh\necho \"$1 $PKG_ROOT\" > /etc/hello.configured\n";
  recipe.scripts["preinst"] = "#!/bin/sh\necho \"$*\" > /var/hello.preinst\n";
  recipe.scripts["prerm"] = "#!/bin/sh\necho \"$1\" > /var/hello.prerm\n";
  recipe.scripts["postrm"] = "#!/bin/sh\necho \"$1\" > /var/hello.postrm\n";
  recipe.extraControl = "Depends: libc6\n";
  return recipe;
}

fixtures::PackageRecipe simpleSpec(const std::string& name, const std::string& version) {
  fixtures::PackageRecipe recipe;
  recipe.name = name;
  recipe.version = version;
  recipe.files["/usr/share/" + name + "/version"] = version + "\n";
  return recipe;
}

TEST_F(OpkgTool, InstallUnpacksIntoAnOfflineRootWithBusyboxAppletsOnly) {
  fixtures::PackageRecipe plain = simpleSpec("plain", "2");
  plain.withSha256Sums = false;
  const Result result = offline(
      "--nodeps --force-depends --force-downgrade --force-maintainer "
      "install '" +
      build(helloSpec()) + "' '" + build(plain) + "'");
  ASSERT_EQ(result.status, 0) << result.err;

  EXPECT_EQ(harness::readFile(root + "/etc/hello.conf"), "greeting=hi\n");
  struct stat st;
  ASSERT_EQ(stat((root + "/usr/bin/hello").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0755u);
  EXPECT_EQ(harness::readFile(root + "/usr/share/plain/version"), "2\n");
  EXPECT_FALSE(exists(root + "/etc/hello.configured")) << "no maintainer script runs offline";
  EXPECT_FALSE(exists(root + "/var/hello.preinst"));

  EXPECT_EQ(withoutTimes(status()),
            "Package: hello\nVersion: 1.0-r1\nDepends: libc6\nStatus: install ok unpacked\n"
            "Architecture: vindal\n\n"
            "Package: plain\nVersion: 2\nStatus: install ok unpacked\nArchitecture: all\n\n");
  EXPECT_EQ(info("hello.control"), fixtures::controlText(helloSpec()));
  EXPECT_EQ(sortedLines(info("hello.list")),
            (std::vector<std::string>{"/etc/hello.conf", "/usr/bin/hello"}));
  EXPECT_EQ(info("hello.postinst"), helloSpec().scripts["postinst"]);
  EXPECT_NE(info("hello.sha256sums").find("  usr/bin/hello\n"), std::string::npos);
  EXPECT_EQ(info("plain.list"), "/usr/share/plain/version\n");
  EXPECT_FALSE(exists(root + "/var/lib/opkg/info/plain.sha256sums"));
  EXPECT_TRUE(tmpIsEmpty());

  const Result list = offline("list-installed");
  EXPECT_EQ(list.status, 0);
  EXPECT_EQ(list.out, "hello - 1.0-r1\nplain - 2\n");
}

TEST_F(OpkgTool, UpgradesDowngradesAndReinstalls) {
  fixtures::PackageRecipe v1 = simpleSpec("app", "1.0");
  v1.files["/usr/lib/app/old.so"] = "old";
  fixtures::PackageRecipe v2 = simpleSpec("app", "2.0");
  v2.files["/usr/lib/app/new.so"] = "new";
  const std::string p1 = build(v1), p2 = build(v2);

  ASSERT_EQ(offline("install '" + p1 + "'").status, 0);
  ASSERT_EQ(offline("install '" + p2 + "'").status, 0);
  EXPECT_FALSE(exists(root + "/usr/lib/app/old.so"));
  EXPECT_EQ(harness::readFile(root + "/usr/lib/app/new.so"), "new");
  EXPECT_EQ(harness::readFile(root + "/usr/share/app/version"), "2.0\n");
  EXPECT_EQ(sortedLines(info("app.list")),
            (std::vector<std::string>{"/usr/lib/app/new.so", "/usr/share/app/version"}));

  const std::string before = status();
  const Result refused = offline("install '" + p1 + "'");
  EXPECT_NE(refused.status, 0);
  EXPECT_NE(refused.err.find("--force-downgrade"), std::string::npos) << refused.err;
  EXPECT_EQ(status(), before);
  EXPECT_EQ(harness::readFile(root + "/usr/share/app/version"), "2.0\n");

  const std::string options = "--offline-root='" + root + "' --conf='" + conf + "' --tmp-dir='" +
                              tmp + "' --force-downgrade";
  ASSERT_EQ(offline("install '" + p1 + "'", options).status, 0);
  EXPECT_NE(status().find("Version: 1.0\n"), std::string::npos);
  EXPECT_TRUE(exists(root + "/usr/lib/app/old.so"));
  EXPECT_FALSE(exists(root + "/usr/lib/app/new.so"));

  // A package that is only unpacked is unpacked again at the same version.
  const Result again = offline("install '" + p1 + "'");
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.out.find("Reinstalling app (1.0)"), std::string::npos) << again.out;

  // Versions in ascending order: each one is an upgrade, and going back is refused.
  const char* const ascending[] = {"1.1~rc1", "1.1", "1.1-r1", "1.1-r10", "1.10", "1:0.5"};
  for (const char* version : ascending) {
    EXPECT_EQ(offline("install '" + build(simpleSpec("app", version)) + "'").status, 0) << version;
  }
  for (const char* version : ascending) {
    if (std::string(version) == "1:0.5") continue;
    EXPECT_NE(offline("install '" + build(simpleSpec("app", version)) + "'").status, 0) << version;
  }
  EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(OpkgTool, RejectsBadInputAndLeavesTheDatabaseAlone) {
  ASSERT_EQ(offline("install '" + build(simpleSpec("keeper", "1")) + "'").status, 0);
  const std::string statusBefore = status();
  std::string infoBefore;
  harness::shell("ls -l '" + root + "/var/lib/opkg/info'", &infoBefore);

  // Members for hand-made packages.
  const std::string work = scratch / "work";
  ASSERT_EQ(
      harness::shell("mkdir -p '" + work + "/c' '" + work + "/d' && echo x > '" + work +
                     "/escape' && printf 'Package: esc\\nVersion: 1\\nArchitecture: all\\n' > '" +
                     work + "/c/control' && tar -C '" + work + "/c' -czf '" + work +
                     "/control.tar.gz' . && cd '" + work + "/d' && tar -czPf '" + work +
                     "/escape.tar.gz' ../escape"),
      0);
  const std::string control = harness::readFile(work + "/control.tar.gz");
  const std::string escaping = harness::readFile(work + "/escape.tar.gz");
  harness::writeFile(pkgs + "/text.ipk", "this is not a package\n");
  harness::writeFile(pkgs + "/empty.ipk", "");

  auto withControl = [&](const std::string& name, const std::string& text) {
    fixtures::PackageRecipe recipe = simpleSpec(name, "1");
    recipe.rawControl = text;
    return build(recipe);
  };
  fixtures::PackageRecipe foreign = simpleSpec("foreign", "1");
  foreign.architecture = "x86_64";
  const std::string options = "--offline-root='" + root + "' --tmp-dir='" + tmp + "'";

  struct Case {
    const char* what;
    std::string args;
    std::string options;
  };
  const std::vector<Case> cases = {
      {"missing package file", "install '" + pkgs + "/nothere.ipk'", ""},
      {"directory", "install '" + pkgs + "'", ""},
      {"not an ar archive", "install '" + pkgs + "/text.ipk'", ""},
      {"empty file", "install '" + pkgs + "/empty.ipk'", ""},
      {"no data member",
       "install '" +
           fixtures::buildArchive({{"debian-binary", "2.0\n"}, {"control.tar.gz", control}},
                                  pkgs + "/nodata.ipk") +
           "'",
       ""},
      {"damaged control member",
       "install '" +
           fixtures::buildArchive({{"debian-binary", "2.0\n"},
                                   {"control.tar.gz", "garbage"},
                                   {"data.tar.gz", escaping}},
                                  pkgs + "/damaged.ipk") +
           "'",
       ""},
      {"no Package field", "install '" + withControl("a", "Version: 1\nArchitecture: all\n") + "'",
       ""},
      {"no Version field", "install '" + withControl("b", "Package: b\nArchitecture: all\n") + "'",
       ""},
      {"no Architecture field", "install '" + withControl("c", "Package: c\nVersion: 1\n") + "'",
       ""},
      {"name with a slash",
       "install '" + withControl("d", "Package: ../d\nVersion: 1\nArchitecture: all\n") + "'", ""},
      {"foreign architecture", "install '" + build(foreign) + "'", ""},
      {"missing configuration file", "install '" + build(simpleSpec("e", "1")) + "'",
       options + " --conf='" + scratch / "nothere.conf" + "'"},
      {"unknown sub-command", "frobnicate", ""},
      {"unknown option", "--force-everything install x", ""},
      {"no sub-command", "", ""},
      {"install without a file", "install", ""},
      {"remove without a name", "remove", ""},
      {"remove of an unknown package", "remove ghost", ""},
      {"configure against an offline root", "configure", ""},
      {"offline root that is no directory", "list-installed",
       "--offline-root='" + scratch / "nothere" + "'"},
  };
  for (const Case& c : cases) {
    const Result result = offline(c.args, c.options);
    EXPECT_NE(result.status, 0) << c.what;
    EXPECT_NE(result.err, "") << c.what;
    EXPECT_EQ(status(), statusBefore) << c.what;
    std::string infoAfter;
    harness::shell("ls -l '" + root + "/var/lib/opkg/info'", &infoAfter);
    EXPECT_EQ(infoAfter, infoBefore) << c.what;
    EXPECT_TRUE(tmpIsEmpty()) << c.what;
  }

  // A member that climbs out of the root lands inside it, or the package is refused.
  offline("install '" +
          fixtures::buildArchive(
              {{"debian-binary", "2.0\n"}, {"control.tar.gz", control}, {"data.tar.gz", escaping}},
              pkgs + "/escape.ipk") +
          "'");
  EXPECT_FALSE(exists(scratch / "escape"));
  EXPECT_TRUE(tmpIsEmpty());
}

TEST_F(OpkgTool, ConfiguresAndRemovesInsideTheTarget) {
  SELVANE_REQUIRE_ROOT();
  fixtures::PackageRecipe broken = simpleSpec("broken", "1");
  broken.scripts["postinst"] = "#!/bin/sh\necho 'cannot configure' >&2\nexit 3\n";
  fixtures::PackageRecipe other = simpleSpec("other", "1");
  other.scripts["postinst"] = "echo done > /var/other.configured\n";  // no #!: run with sh
  fixtures::PackageRecipe stubborn = simpleSpec("stubborn", "1");
  stubborn.scripts["prerm"] = "#!/bin/sh\nexit 1\n";
  const std::string hello = build(helloSpec());
  ASSERT_EQ(offline("install '" + hello + "' '" + build(broken) + "' '" + build(other) + "' '" +
                    build(stubborn) + "'")
                .status,
            0);

  Result result = inTarget("configure hello");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/etc/hello.configured"), "configure /\n");
  EXPECT_NE(status().find("Package: hello\nVersion: 1.0-r1\nDepends: libc6\n"
                          "Status: install ok installed\n"),
            std::string::npos);

  result = inTarget("configure");
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("broken"), std::string::npos) << result.err;
  EXPECT_EQ(harness::readFile(root + "/var/other.configured"), "done\n");
  EXPECT_NE(status().find("Package: broken\nVersion: 1\nStatus: install ok unpacked\n"),
            std::string::npos);
  EXPECT_NE(inTarget("configure broken").status, 0);
  EXPECT_NE(inTarget("configure ghost").status, 0);

  // Configured packages are left alone, also by a new offline install of the same version.
  ASSERT_EQ(unlink((root + "/etc/hello.configured").c_str()), 0);
  EXPECT_EQ(inTarget("configure hello").status, 0);
  EXPECT_FALSE(exists(root + "/etc/hello.configured"));
  const std::string before = status();
  result = offline("install '" + hello + "'");
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("up to date"), std::string::npos) << result.out;
  EXPECT_EQ(status(), before);

  result = inTarget("remove --force-remove --nodeps --force-depends --force-maintainer hello");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(root + "/usr/bin/hello"));
  EXPECT_FALSE(exists(root + "/etc/hello.conf"));
  EXPECT_EQ(harness::readFile(root + "/var/hello.prerm"), "remove\n");
  EXPECT_EQ(harness::readFile(root + "/var/hello.postrm"), "remove\n");
  for (const char* file : {"control", "list", "postinst", "prerm", "postrm", "sha256sums"})
    EXPECT_FALSE(exists(root + "/var/lib/opkg/info/hello." + file)) << file;
  EXPECT_EQ(status().find("Package: hello"), std::string::npos);
  result = inTarget("remove hello");
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("hello"), std::string::npos);

  EXPECT_NE(inTarget("remove stubborn").status, 0);
  EXPECT_NE(status().find("Package: stubborn"), std::string::npos);
  EXPECT_EQ(inTarget("remove --force-remove stubborn").status, 0);
  EXPECT_EQ(status().find("Package: stubborn"), std::string::npos);

  // Installed from inside the target, a package is configured at once.
  ASSERT_EQ(
      harness::shell("mkdir -p '" + root + "/pkgs' && cp '" + hello + "' '" + root + "/pkgs/'"), 0);
  result = inTarget("install /pkgs/" + hello.substr(hello.rfind('/') + 1));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/var/hello.preinst"), "install\n");
  EXPECT_EQ(harness::readFile(root + "/etc/hello.configured"), "configure /\n");
  EXPECT_NE(status().find("Package: hello\nVersion: 1.0-r1\nDepends: libc6\n"
                          "Status: install ok installed\n"),
            std::string::npos);
  result = inTarget("install --force-reinstall /pkgs/" + hello.substr(hello.rfind('/') + 1));
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/var/hello.preinst"), "upgrade 1.0-r1\n");
  std::string leftovers;
  harness::shell("ls -A '" + root + "/tmp'", &leftovers);
  EXPECT_EQ(leftovers, "");
}

}  // namespace
