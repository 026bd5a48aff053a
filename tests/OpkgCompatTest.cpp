// The opkg-compatible tool of tools/opkg: offline installs with busybox applets only, configure
// and remove inside a chroot, upgrades, and refusal of bad input.
#include <unistd.h>

#include <string>
#include <vector>

#include "Harness.h"
#include "OpkgTool.h"
#include "PackageBuilder.h"

namespace {

struct Result {
  int status;
  std::string out, err;
};

bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

fixtures::PackageRecipe simpleSpec(const std::string& name, const std::string& version) {
  fixtures::PackageRecipe recipe;
  recipe.name = name;
  recipe.version = version;
  recipe.files["/usr/share/" + name + "/version"] = version + "\n";
  return recipe;
}

fixtures::PackageRecipe helloSpec() {
  fixtures::PackageRecipe recipe = simpleSpec("hello", "1.0-r1");
  recipe.architecture = "vindal";
  recipe.executables["/usr/bin/hello"] = "#!/bin/sh\necho hi\n";
  recipe.scripts["postinst"] = "#!/bin/sh\necho \"$1 $PKG_ROOT\" > /etc/hello.configured\n";
  recipe.scripts["preinst"] = "#!/bin/sh\necho \"$*\" > /var/hello.preinst\n";
  recipe.scripts["prerm"] = "#!/bin/sh\necho \"$1\" > /var/hello.prerm\n";
  recipe.scripts["postrm"] = "#!/bin/sh\necho \"$1\" > /var/hello.postrm\n";
  recipe.extraControl = "Depends: libc6\n";
  return recipe;
}

class OpkgTool : public ::testing::Test {
 protected:
  void SetUp() override {
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
  // Options in args come later and win.
  Result offline(const std::string& args) {
    return run("env -i PATH='" + root + "/bin' '" + root + "/bin/sh' '" + fixtures::opkgToolPath() +
               "' --offline-root='" + root + "' --conf='" + conf + "' --tmp-dir='" + tmp + "' " +
               args);
  }
  // The target's own opkg-cl under chroot, as the library runs it.
  Result inTarget(const std::string& args) {
    return run("env -i PATH=/usr/bin:/bin /usr/sbin/chroot '" + root + "' /usr/bin/opkg-cl " +
               args);
  }

  std::string build(const fixtures::PackageRecipe& recipe) {
    return "'" + fixtures::buildPackage(recipe, pkgs) + "'";
  }
  std::string status() { return harness::readFile(root + "/var/lib/opkg/status"); }
  std::string info(const std::string& file) {
    return harness::readFile(root + "/var/lib/opkg/info/" + file);
  }
  std::string tmpEntries() { return run("ls -A '" + tmp + "'").out; }

  harness::ScratchDir scratch;
  const std::string root = scratch / "root", pkgs = scratch / "pkgs", tmp = scratch / "tmp",
                    conf = scratch / "opkg.conf";
};

TEST_F(OpkgTool, InstallUnpacksIntoAnOfflineRootWithBusyboxAppletsOnly) {
  fixtures::PackageRecipe plain = simpleSpec("plain", "2");
  plain.withSha256Sums = false;
  const Result result = offline(
      "--nodeps --force-depends --force-downgrade --force-maintainer "
      "install " +
      build(helloSpec()) + " " + build(plain));
  ASSERT_EQ(result.status, 0) << result.err;

  EXPECT_EQ(run("stat -c %a '" + root + "/usr/bin/hello'").out, "755\n");
  EXPECT_EQ(harness::readFile(root + "/usr/share/plain/version"), "2\n");
  EXPECT_FALSE(exists(root + "/var/hello.preinst")) << "no maintainer script runs offline";

  // The status file without the Installed-Time lines, which vary.
  EXPECT_EQ(run("grep -v '^Installed-Time:' '" + root + "/var/lib/opkg/status'").out,
            "Package: hello\nVersion: 1.0-r1\nDepends: libc6\nStatus: install ok unpacked\n"
            "Architecture: vindal\n\n"
            "Package: plain\nVersion: 2\nStatus: install ok unpacked\nArchitecture: all\n\n");
  EXPECT_EQ(info("hello.control"), fixtures::controlText(helloSpec()));
  EXPECT_EQ(run("sort '" + root + "/var/lib/opkg/info/hello.list'").out,
            "/usr/bin/hello\n/usr/share/hello/version\n");
  EXPECT_EQ(info("hello.postinst"), helloSpec().scripts["postinst"]);
  EXPECT_NE(info("hello.sha256sums").find("  usr/bin/hello\n"), std::string::npos);
  EXPECT_FALSE(exists(root + "/var/lib/opkg/info/plain.sha256sums"));
  EXPECT_EQ(tmpEntries(), "");
  EXPECT_EQ(offline("list-installed").out, "hello - 1.0-r1\nplain - 2\n");
}

TEST_F(OpkgTool, UpgradesDowngradesAndReinstalls) {
  fixtures::PackageRecipe v1 = simpleSpec("app", "1.0"), v2 = simpleSpec("app", "2.0");
  v1.files["/usr/lib/app/old.so"] = "old";
  v2.files["/usr/lib/app/new.so"] = "new";
  const std::string p1 = build(v1);
  ASSERT_EQ(offline("install " + p1).status, 0);
  ASSERT_EQ(offline("install " + build(v2)).status, 0);
  EXPECT_FALSE(exists(root + "/usr/lib/app/old.so"));
  EXPECT_EQ(harness::readFile(root + "/usr/share/app/version"), "2.0\n");

  const std::string before = status();
  const Result refused = offline("install " + p1);
  EXPECT_NE(refused.status, 0);
  EXPECT_NE(refused.err.find("--force-downgrade"), std::string::npos) << refused.err;
  EXPECT_EQ(status(), before);
  EXPECT_EQ(harness::readFile(root + "/usr/share/app/version"), "2.0\n");

  ASSERT_EQ(offline("--force-downgrade install " + p1).status, 0);
  EXPECT_NE(status().find("Version: 1.0\n"), std::string::npos);
  EXPECT_TRUE(exists(root + "/usr/lib/app/old.so"));
  EXPECT_FALSE(exists(root + "/usr/lib/app/new.so"));
  // A package that is only unpacked is unpacked again at the same version.
  const Result again = offline("install " + p1);
  EXPECT_EQ(again.status, 0);
  EXPECT_NE(again.out.find("Reinstalling app (1.0)"), std::string::npos) << again.out;

  // Versions in ascending order: each one is an upgrade; going back is refused, as the epoch
  // counts first.
  for (const char* version : {"1.1~rc1", "1.1", "1.1-r1", "1.1-r10", "1.10", "1:0.5"})
    EXPECT_EQ(offline("install " + build(simpleSpec("app", version))).status, 0) << version;
  EXPECT_NE(offline("install " + build(simpleSpec("app", "1.10"))).status, 0);
  EXPECT_EQ(tmpEntries(), "");
}

TEST_F(OpkgTool, RejectsBadInputAndLeavesTheDatabaseAlone) {
  ASSERT_EQ(offline("install " + build(simpleSpec("keeper", "1"))).status, 0);
  // The database and the work directory, compared after each case.
  const auto state = [&] {
    return status() + run("ls -l '" + root + "/var/lib/opkg/info' '" + tmp + "'").out;
  };
  const std::string before = state();

  // Members for hand-made packages: a good control member and a data member that climbs out.
  const std::string work = scratch / "work";
  ASSERT_EQ(harness::shell("mkdir -p '" + work + "/d' && cd '" + work + "' && ar x " +
                           build(simpleSpec("esc", "1")) +
                           " && echo x > escape && cd d && tar -czPf ../escape.tar.gz ../escape"),
            0);
  const std::string goodControl = harness::readFile(work + "/control.tar.gz");
  const std::string escaping = harness::readFile(work + "/escape.tar.gz");
  harness::writeFile(pkgs + "/text.ipk", "this is not a package\n");
  harness::writeFile(pkgs + "/empty.ipk", "");
  // An ar archive of debian-binary, the control member and, unless it is empty, the data member.
  const auto archive = [&](const char* name, const std::string& control, const std::string& data) {
    std::vector<std::pair<std::string, std::string>> members{{"debian-binary", "2.0\n"},
                                                             {"control.tar.gz", control}};
    if (!data.empty()) members.emplace_back("data.tar.gz", data);
    return "'" + fixtures::buildArchive(members, pkgs + "/" + name) + "'";
  };
  const auto withControl = [&](const char* name, const std::string& text) {
    fixtures::PackageRecipe recipe = simpleSpec(name, "1");
    recipe.rawControl = text;
    return build(recipe);
  };

  const struct {
    const char* what;
    std::string args;
  } cases[] = {
      {"missing package file", "install '" + pkgs + "/nothere.ipk'"},
      {"directory", "install '" + pkgs + "'"},
      {"not an ar archive", "install '" + pkgs + "/text.ipk'"},
      {"empty file", "install '" + pkgs + "/empty.ipk'"},
      {"no data member", "install " + archive("nodata.ipk", goodControl, "")},
      {"damaged control member", "install " + archive("damaged.ipk", "garbage", escaping)},
      {"no Package field", "install " + withControl("a", "Version: 1\nArchitecture: all\n")},
      {"no Version field", "install " + withControl("b", "Package: b\nArchitecture: all\n")},
      {"no Architecture field", "install " + withControl("c", "Package: c\nVersion: 1\n")},
      {"name with a slash",
       "install " + withControl("d", "Package: ../d\nVersion: 1\nArchitecture: all\n")},
      {"foreign architecture",
       "install " + withControl("f", "Package: f\nVersion: 1\nArchitecture: x86_64\n")},
      {"missing configuration file",
       "--conf='" + scratch / "nothere.conf" + "' install " + build(simpleSpec("e", "1"))},
      {"unknown sub-command", "frobnicate"},
      {"unknown option", "--force-everything install x"},
      {"no sub-command", ""},
      {"install without a file", "install"},
      {"remove without a name", "remove"},
      {"remove of an unknown package", "remove ghost"},
      {"configure against an offline root", "configure"},
      {"offline root that is no directory",
       "--offline-root='" + scratch / "nothere" + "' list-installed"},
  };
  for (const auto& c : cases) {
    const Result result = offline(c.args);
    EXPECT_NE(result.status, 0) << c.what;
    EXPECT_NE(result.err, "") << c.what;
    EXPECT_EQ(state(), before) << c.what;
  }

  // A member that climbs out of the root lands inside it, or the package is refused.
  offline("install " + archive("escape.ipk", goodControl, escaping));
  EXPECT_FALSE(exists(scratch / "escape"));
  EXPECT_EQ(tmpEntries(), "");
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
  ASSERT_EQ(
      offline("install " + hello + " " + build(broken) + " " + build(other) + " " + build(stubborn))
          .status,
      0);
  const std::string helloInstalled =
      "Package: hello\nVersion: 1.0-r1\nDepends: libc6\nStatus: install ok installed\n";

  Result result = inTarget("configure hello");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/etc/hello.configured"), "configure /\n");
  EXPECT_NE(status().find(helloInstalled), std::string::npos);

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
  result = offline("install " + hello);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.out.find("up to date"), std::string::npos) << result.out;
  EXPECT_EQ(status(), before);

  result = inTarget("remove --force-remove --nodeps --force-depends --force-maintainer hello");
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_FALSE(exists(root + "/usr/bin/hello"));
  EXPECT_EQ(
      harness::readFile(root + "/var/hello.prerm") + harness::readFile(root + "/var/hello.postrm"),
      "remove\nremove\n");
  EXPECT_EQ(run("ls '" + root + "/var/lib/opkg/info' | grep hello").out, "");
  EXPECT_EQ(status().find("Package: hello"), std::string::npos);
  result = inTarget("remove hello");
  EXPECT_NE(result.status, 0);
  EXPECT_NE(result.err.find("hello"), std::string::npos);

  EXPECT_NE(inTarget("remove stubborn").status, 0);
  EXPECT_NE(status().find("Package: stubborn"), std::string::npos);
  EXPECT_EQ(inTarget("remove --force-remove stubborn").status, 0);
  EXPECT_EQ(status().find("Package: stubborn"), std::string::npos);

  // Installed from inside the target, a package is configured at once.
  ASSERT_EQ(harness::shell("mkdir -p '" + root + "/pkgs' && cp " + hello + " '" + root + "/pkgs/'"),
            0);
  const std::string inside = "/pkgs/" + helloSpec().name + "_1.0-r1_vindal.ipk";
  result = inTarget("install " + inside);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/var/hello.preinst"), "install\n");
  EXPECT_EQ(harness::readFile(root + "/etc/hello.configured"), "configure /\n");
  EXPECT_NE(status().find(helloInstalled), std::string::npos);
  result = inTarget("install --force-reinstall " + inside);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(harness::readFile(root + "/var/hello.preinst"), "upgrade 1.0-r1\n");
  EXPECT_EQ(run("ls -A '" + root + "/tmp'").out, "");
}

}  // namespace
