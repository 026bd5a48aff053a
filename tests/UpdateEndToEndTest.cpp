// selvane-update on the simulated A/B device: the whole road of an update, every way it can fail
// without touching the running root filesystem or the boot selection, and SIGKILL at any moment.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

#include "Harness.h"
#include "HttpTestServer.h"
#include "PackageBuilder.h"

namespace {

using harness::quote;
using nlohmann::json;
const std::string kSim = SELVANE_TEST_SOURCE_DIR "/../tools/selvane-sim/selvane-sim ";
const std::string kBin = SELVANE_BINARY_DIR "/bin/";
const auto npos = std::string::npos;
#define EXPECT_HAS(text, part) EXPECT_NE((text).find(part), npos) << (text)

// The JSON Lines of selvane-update, schema 1, as README.md documents them: each event's fields and
// their kinds (s string, w whole number, b boolean, o object, a list, z null, p package, P list of
// packages; one of several letters); and the class of each exit code that a failed event names.
const std::string kEvents =
    ";manifest release:s packages:P;plan release:s rootfs:s remove:P install:P unchanged:P "
    "download_bytes:w;up-to-date release:s rootfs:s;download package:p;progress bytes:w total:w "
    "bytes_per_second:w seconds_left:w;retry url:s attempt:w reason:s;hook stage:s hook:s "
    "exit_code:w;boot-reset bootmode:s;remove package:p;install package:p;configure ;verify ;"
    "sanity-check ;switched release:s bootmode:s retries:w;status current:s other:s "
    "current_release:sz other_release:sz update_in_progress:b update_step:sz boot:o "
    "other_packages:P;known-good rootfs:s;config file:s settings:a;failed class:s exit_code:w "
    "message:s;";
const std::string kClasses =
    "ok internal usage manifest download size digest signature mount install configure verify "
    "sanity-check boot-switch already-running interrupted unsafe-root downgrade pre-install-hook "
    "no-space ";

bool isPackage(const json& p) {  // the keys of a parsed object come sorted
  return std::regex_match(
      p.dump(),
      std::regex(R"(\{"name":"[^"]+"(,"size":\d+)?(,"url":"[^"]+")?,"version":"[^"]+"\})"));
}

// Every line of out is one event of the schema, with exactly its fields.
void expectSchema(const std::string& out) {
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    json e = json::parse(line, nullptr, false);
    ASSERT_TRUE(e.is_object()) << "not a JSON object: " << line;
    EXPECT_TRUE(std::regex_search(line, std::regex(R"(^\{"schema":1,"event":"[a-z-]+","time":")"
                                                   R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z")")))
        << line;
    const size_t start = kEvents.find(";" + e.value("event", "?") + " ") + 1;
    ASSERT_NE(start, 0u) << "unknown event: " << line;
    std::istringstream fields(kEvents.substr(start, kEvents.find(';', start) - start));
    std::string field;
    size_t count = 3;
    for (fields >> field; fields >> field; ++count) {
      const json& v = e[field.substr(0, field.find(':'))];
      std::string kind(1, v.is_number_unsigned() ? 'w' : v.is_null() ? 'z' : v.type_name()[0]);
      if (isPackage(v)) kind += 'p';
      if (v.is_array() && std::all_of(v.begin(), v.end(), isPackage)) kind += 'P';
      EXPECT_NE(kind.find_first_of(field.substr(field.find(':') + 1)), npos)
          << field << " in " << line;
    }
    EXPECT_EQ(e.size(), count) << line;
    EXPECT_TRUE(e["event"] != "failed" ||  // the class is word number exit_code of kClasses
                std::regex_search(kClasses, std::regex("^(\\S+ ){" + e["exit_code"].dump() + "}" +
                                                       e.value("class", "?") + " ")))
        << line;
  }
}

// A command in the background, in a process group of its own; its output is read line by line.
struct Background {
  explicit Background(const std::string& command)
      : out(popen(("exec setsid sh -c " + quote("echo $$; exec " + command)).c_str(), "r")) {
    if (fscanf(out, "%d\n", &pid) != 1) throw std::runtime_error("cannot start " + command);
  }
  ~Background() {
    if (out != nullptr) kill(-pid, SIGKILL), wait();
  }
  // Reads lines until one contains text; false at the end of the output.
  bool waitFor(const std::string& text) {
    char line[65536];
    while (fgets(line, sizeof line, out) != nullptr)
      if (std::string(line).find(text) != npos) return true;
    return false;
  }
  int wait() {
    waitFor("\n\n");  // to the end of the output, so that the command never meets a closed pipe
    const int status = pclose(out);
    out = nullptr;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  pid_t pid = -1;  // of the process group
  FILE* out;
};

// Each test has a simulated device: release 1.0 runs from main-A, release 2.0 is served.
class UpdateEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef SELVANE_CROSS_EMULATOR
    GTEST_SKIP() << "the simulated device runs the update client natively, not under an emulator";
#endif
    SELVANE_REQUIRE_ROOT();
    ASSERT_EQ(sh("SELVANE_BIN=" + kBin + " " + kSim + "create " + dir, &out), 0) << out;
  }
  void TearDown() override { sh(kSim + "destroy " + dir); }

  // A shell command (on the device with onDevice), with its standard error; out gets its output.
  int sh(const std::string& command, std::string* result = nullptr, bool onDevice = false) const {
    if (result != nullptr) result->clear();
    return harness::shell(
        (onDevice ? kSim + "run " + dir + " -- sh -c " + quote(command) : command) + " 2>&1",
        result);
  }
  std::string output(const std::string& command, bool onDevice = false) const {
    std::string result;
    sh(command, &result, onDevice);
    return result;
  }
  // selvane-update on the device, after a shell command of its own.
  std::string command(const std::string& arguments, const std::string& before = "") const {
    return kSim + "run " + dir + " -- sh -c " +
           quote(before + kBin + "selvane-update " + arguments);
  }
  // A JSON run's standard output only, checked against the schema; standard error too otherwise.
  // Its output goes to out.
  int update(const std::string& arguments, const std::string& before = "") {
    out.clear();
    const bool json = arguments.compare(0, 6, "--json") == 0;
    const int status = harness::shell(
        command(arguments, before) + (json ? " 2>" + dir + "/stderr" : " 2>&1"), &out);
    if (json) expectSchema(out);
    return status;
  }
  std::string install(const std::string& release, const std::string& more = "") const {
    return "--json install --timeout 0 --manifest " + url(release + "/manifest") + keys + more;
  }
  std::string url(const std::string& path) const {
    return "https://localhost:" + harness::readFile(dir + "/port").substr(0, 5) + "/" + path;
  }
  std::string bootProperties() const { return output(kSim + "env " + dir); }
  bool bootsMainB() const { return bootProperties().find("boot.bootmode=main-B\n") != npos; }
  bool mounted() const { return sh("grep -q ota-mount /proc/self/mountinfo", nullptr, true) == 0; }
  // The writes that reached main-A's loop device (and main-B's), the boot environment, and the
  // bait in a host directory that attacks aim at.
  std::string untouchable(bool mainB = false) const {
    return output("for p in main-A " + std::string(mainB ? "main-B" : "") +
                  "; do awk '{ print $5, $7 }' /sys/block/$(awk -v p=$p '$1 == p { print $2 }' " +
                  dir + "/loops | cut -d/ -f3)/stat; done; cat " + dir + "/env/uboot-?.env; cd " +
                  scratch / "host" +
                  " 2>&- && find . -printf '%p %s %y %l\\n' | sort && cat $(find . " +
                  "-type f | sort)");
  }
  // A run (mostly a failure): its exit code and message, nothing outside main-B (or nothing at all,
  // with mainB) changed, main-B unmounted.
  void expectUntouched(const std::string& arguments, int code, const std::string& message,
                       const std::string& before = "", bool mainB = false) {
    const std::string state = untouchable(mainB);
    EXPECT_EQ(update(arguments, before), code) << arguments << "\n" << out;
    EXPECT_HAS(out, message);
    EXPECT_TRUE(untouchable(mainB) == state && !mounted()) << arguments << "\n" << state;
  }
  // Bytes of packages (whose URL holds name) that the server sent.
  uint64_t served(const std::string& name = "") const {
    return std::stoull(output("awk '$1 ~ /" + name +
                              ".*[.]ipk$/ { n += $3 } END { print n + 0 }' " + dir +
                              "/nginx/logs/access.log"));
  }
  // Publishes release NAME under www/NAME, its manifest signed with the release key: release 2.0's
  // packages (unless not keepBase), replaced or joined by others, served from base (or www/NAME).
  void publish(const std::string& name, const std::vector<std::string>& packages,
               bool keepBase = true, const std::string& base = "") const {
    std::string command = "cd " + dir + "/www && mkdir -p " + name + " && cd " + name +
                          (keepBase ? " && cp " + release2 + "*.ipk ." : ""),
                output;
    for (const std::string& p : packages)
      command += " && rm -f $(basename " + p + " | cut -d_ -f1)_*.ipk && cp " + p + " .";
    command += " && " + kBin + "selvane-pack manifest --version " + name + " --base-url " +
               (base.empty() ? url(name) : base) + " --output manifest *.ipk && " + kBin +
               "selvane-pack sign-manifest --key ../../keys/release.pem manifest";
    ASSERT_EQ(sh(command, &output), 0) << output;
  }
  static fixtures::PackageRecipe recipe(const std::string& name,
                                        const std::string& version = "1.0") {
    fixtures::PackageRecipe recipe;
    recipe.name = name;
    recipe.version = version;
    return recipe;
  }
  // A package for this device, signed with its release key.
  std::string package(const fixtures::PackageRecipe& recipe) const {
    const std::string path = fixtures::buildPackage(recipe, packages.path());
    EXPECT_EQ(sh(kBin + "selvane-pack sign --key " + dir + "/keys/release.pem " + path), 0);
    return path;
  }
  std::string withRandomData(const std::string& name, const std::string& version, size_t bytes) {
    fixtures::PackageRecipe recipe = this->recipe(name, version);
    harness::shell("head -c " + std::to_string(bytes) + " /dev/urandom | base64 -w0",
                   &recipe.files["/usr/share/" + name + "/data"]);
    return package(recipe);
  }

  harness::ScratchDir scratch, packages;
  const std::string dir = scratch / "device", keys = " --keys " + dir + "/keys/trusted ";
  const std::string release2 = dir + "/www/release-2.0/";
  const std::string setBootMode =
      "fw_setenv -c " + dir + "/env/fw_env.config -f " + dir + "/env/initial-env boot.bootmode ";
  std::string out;  // of the last update
};

}  // namespace

// The road: settings and hooks from the configuration file, a boot switch that does not take,
// the install, its idempotent re-run, booting the new root, and a release that moves the shell.
TEST_F(UpdateEndToEnd, InstallsTheNextReleaseSwitchesTheBootAndBootsIt) {
  const std::string hooks = dir + "/etc/selvane/hooks/", log = dir + "/hooks.log", to = " >>" + log;
  const std::string conf = "manifest = " + url("release-2.0/manifest") + "\nretries = 2\n";
  harness::writeFile(dir + "/etc/selvane/update.conf", conf + "keys = " + dir + "/keys/trusted\n");
  // What each hook sees; their output must stay off the JSON stream.
  for (const auto& [name, body] : std::map<std::string, std::string>{
           {"pre-install.d/10-record",
            "echo hello; test -d $SELVANE_OTHER_MOUNTPOINT/lost+found " +
                ("&& echo $1 $SELVANE_RELEASE $SELVANE_OTHER_ROOT mounted" + to)},
           {"pre-install.d/20-refuse", "exit 3"},
           {"pre-install.d/.hidden", "exit 1"},
           {"pre-install.d/15-not-executable", "exit 1"},
           {"post-install.d/10-record",
            "echo $SELVANE_STAGE $SELVANE_RELEASE $SELVANE_OTHER_ROOT" + to},
           {"on-failure.d/10-record", "echo $1 $SELVANE_FAILURE $SELVANE_EXIT_CODE" + to}}) {
    sh("mkdir -p " + hooks + name.substr(0, name.find('/')));
    harness::writeFile(hooks + name, "#!/bin/sh\n" + body + "\n",
                       name.find("not-exec") == npos ? 0755 : 0644);
  }
  expectUntouched("--json install --timeout 0", 18,
                  "the pre-install hook /etc/selvane/hooks/pre-install.d/20-refuse exited with 3",
                  "", true);
  ASSERT_EQ(unlink((hooks + "pre-install.d/20-refuse").c_str()), 0);
  // A boot environment that does not take the switch: the selection stays, and says so. With no
  // retries the count already reads as wanted, and only the mode shows that nothing took.
  expectUntouched("install --timeout 0 --retries 0", 13,
                  "the previous selection boot.bootmode=main-A, boot.otaretrycount=0 is back",
                  "e=" + dir + "/env && mount --bind $e $e && mount -o remount,ro,bind $e && ");
  ASSERT_EQ(sh("umount " + dir + "/env", nullptr, true), 0);

  ASSERT_EQ(update("--json install --timeout 0"), 0) << out;
  EXPECT_HAS(bootProperties(), "boot.bootmode=main-B\nboot.knowngood=main-A\nboot.otaretrycount=2");
  EXPECT_FALSE(mounted()) << "the other root is unmounted";
  EXPECT_EQ(harness::readFile(log),
            "pre-install 2.0 main-B mounted\non-failure pre-install-hook 18\n"
            "pre-install 2.0 main-B mounted\non-failure boot-switch 13\n"
            "pre-install 2.0 main-B mounted\npost-install 2.0 main-B\n");

  // Again: nothing to download, nothing to write.
  const uint64_t bytes = served();
  expectUntouched("--json install", 0, R"("event":"up-to-date")", "", true);
  EXPECT_EQ(served(), bytes);
  ASSERT_EQ(update("--log check"), 0);
  EXPECT_HAS(out, "0 to install, 0 to remove, 4 unchanged");

  // "Boot" main-B: the new release runs there, and marks itself known good.
  const std::string boot = kSim + "boot " + dir + " main-B -- ";
  ASSERT_EQ(sh(boot + "/usr/bin/hello", &out), 0) << out;
  EXPECT_HAS(out, "hello from release 2.0\nconfigured on");
  ASSERT_EQ(sh(boot + "/run/selvane/selvane-update mark-good", &out), 0) << out;
  ASSERT_EQ(sh(boot + "/run/selvane/selvane-update --json status", &out), 0) << out;
  expectSchema(out);
  EXPECT_HAS(out, R"("current":"main-B","other":"main-A","current_release":"2.0","other_release":)"
                  R"("1.0","update_in_progress":false,"update_step":null,"boot":{"bootmode":)"
                  R"("main-B","otaretrycount":2,"knowngood":"main-B"})");

  // A release that drops hello and moves the shell from busybox to a package of another name:
  // the shell's old package goes last, after the installs, so that opkg never runs without it.
  const std::string toolbox = packages / "toolbox_1.0_all.ipk";  // busybox under another name
  ASSERT_EQ(
      sh("cd " + packages.path() + " && mkdir c && ar x " + release2 +
         "busybox_1.35.0_all.ipk && tar xzf control.tar.gz -C c && sed -i '/^Package:/cPackage:"
         " toolbox' c/control && tar czf control.tar.gz -C c . && ar rc " +
         toolbox + " debian-binary control.tar.gz data.tar.gz && " + kBin +
         "selvane-pack sign --key " + dir + "/keys/release.pem " + toolbox),
      0);
  fixtures::PackageRecipe greeter = recipe("greeter");
  greeter.executables["/usr/bin/hello"] = "#!/bin/sh\necho hello from greeter\n";
  publish("moved", {release2 + "base-files_*", release2 + "opkg_*", toolbox, package(greeter)},
          false);
  ASSERT_EQ(update(install("moved")), 0) << out;
  EXPECT_HAS(out, R"("remove":[{"name":"hello","version":"2.0"},)"
                  R"({"name":"busybox","version":"1.35.0"}])");
  ASSERT_EQ(sh(boot + "/usr/bin/hello", &out), 0) << out;
  EXPECT_HAS(out, "hello from greeter");
}

// Every failure class that a server, a manifest, a package or a tampered main-B can cause: each
// ends with its exit code and message, with main-A, the boot properties and a host directory
// full of bait (that the attacks aim at) as they were, and only checked packages in the cache.
TEST_F(UpdateEndToEnd, EveryFailureLeavesTheRunningRootAndTheBootSelectionAlone) {
  const std::string host = scratch / "host", www = dir + "/www/", x = "/x_1.0_all.ipk",
                    escape = "../../../../../../../.." + host;  // from the cache, onto HOST
  ASSERT_EQ(sh("mkdir -p " + host + "/etc && echo bait >" + host + "/etc/bait"), 0);
  // A fresh main-B (of size, or the whole partition), changed by a shell command run at its top.
  const auto tamper = [&](const std::string& command, const std::string& size = "") {
    ASSERT_EQ(
        sh("b=/dev/disk/by-partlabel/main-B m=" + dir + "/mnt/t && mkfs.ext3 -q -F $b " + size +
               " && mkdir -p $m && mount $b $m && cd $m && " + command + " && cd / && umount $m",
           nullptr, true),
        0);
  };
  // Releases of one package x each, some spoilt after they were made.
  const auto fresh = [&] { return withRandomData("x", "1.0", 20000); };
  for (const std::string name : {"digest", "truncated", "oversize", "via-http", "file-url"})
    publish(name, {fresh()}, true,
            name == "via-http"   ? url("to-http/via-http")
            : name == "file-url" ? "file://" + www + name
                                 : "");
  const std::string tampered = fresh();
  for (const std::string& f : {www + "digest" + x, tampered}) {  // a bit of the data member
    std::string bytes = harness::readFile(f);
    bytes[bytes.size() - 1000] ^= 1;
    harness::writeFile(f, bytes);
  }
  publish("tampered", {tampered});
  fixtures::PackageRecipe named = recipe("x"), versioned = recipe("x"), sums = recipe("sums"),
                          broken =
                              recipe("base-files", "2.0-broken");  // its check rejects the root
  const auto control = [](const std::string& name, const std::string& version) {
    return "Package: " + name + "\nVersion: " + version +
           "\nArchitecture: all\nMaintainer: x\nDescription: x\n";
  };
  named.rawControl = control(escape + "/bait", "1");
  versioned.rawControl = control("x", "1.0/" + escape);
  publish("name", {package(named)});
  publish("version", {package(versioned)});
  publish("unsigned", {});
  sh("cd " + www + " && truncate -s -10 truncated" + x + " && truncate -s 200M oversize" + x +
     " && rm unsigned/manifest.sig && mkdir huge && truncate -s 300M huge/manifest");
  publish("0.9", {});
  publish("nocheck", {release2 + "busybox_*", release2 + "opkg_*", release2 + "hello_*"}, false);
  broken.executables["/usr/local/bin/ota-sanity-check.sh"] = "#!/bin/sh\nexit 1\n";
  publish("broken", {package(broken)});
  // A checksum list that leads out of the root.
  sums.withSha256Sums = false;
  sums.scripts["sha256sums"] = std::string(64, '0') + "  ../../dev/zero\n";
  publish("sums", {package(sums)});
  fixtures::HttpTestServer server;

  const std::string plain = "install --allow-http --timeout 0" + keys + "--manifest ";
  const struct {
    std::string arguments;  // a release's name, or the arguments of selvane-update
    int exitCode;
    std::string message, tamper = "";
    size_t requests = 0;  // of the manifest, from the test server
  } cases[] = {
      {"tampered", 7, "is not signed by any key"},
      {"digest", 6, "does not match the manifest"},
      {"truncated", 5, "the manifest says"},
      {"oversize", 5, "the transfer was stopped"},
      {"huge", 5, "the transfer was stopped"},
      {"name", 3, "(names use a-z 0-9 . + - and start with a letter or digit)"},
      {"version", 3, "the manifest's version of package x is not allowed: '1.0/../"},
      {"unsigned", 7, "is not signed"},
      {install("release-2.0", "--allow-http --allow-unsigned-manifest"), 2, "--allow-http"},
      {"0.9", 17, "older than the running release 1.0"},
      {"nocheck", 12, "without /usr/local/bin/ota-sanity-check.sh"},
      {"broken", 12, "ota-sanity-check.sh in"},
      {"sums", 11, "do not match their packages"},
      {"via-http", 4, R"(Protocol \"http\" not supported)"},
      {"file-url", 4, R"(Protocol \"file\" not supported)"},
      {"release-2.0", 16, "/etc/selvane-release.new",
       "mkdir etc && ln -s " + host + "/etc/bait etc/selvane-release.new"},
      {"release-2.0", 16, "/usr/share", "mkdir usr && ln -s " + host + "/etc usr/share"},
      {"release-2.0", 16, "/usr/local/bin",
       "mkdir -p usr/local && ln -s " + escape + " usr/local/bin"},
      // Transient failures are tried again, final answers are not, and a network that stays down
      // is a download failure (4), never a bad manifest (3). Plain output: the message on stderr.
      {plain + server.url("/flaky/2/100"), 7, "is not signed", "", 3},
      {plain + server.url("/status/404"), 3, "404", "", 1},
      {plain + server.url("/status/429") + " --retries-download 1", 4, "(2 tries)", "", 2},
      {plain + server.url("/stall/100") + " --retries-download 1 --stall-timeout 1", 4,
       "nothing arrived for 1 s", "", 2},
      {plain + "http://127.0.0.1:1/manifest --retries-download 0", 4, "(1 tries)"},
  };
  size_t seen = 0;
  for (const auto& c : cases) {
    if (!c.tamper.empty()) tamper(c.tamper);
    expectUntouched(c.arguments.find(' ') != npos ? c.arguments : install(c.arguments), c.exitCode,
                    c.message);
    // Checked packages only in the cache: no manifest, no partial download.
    EXPECT_TRUE(std::regex_match(output("ls -A /var/cache/selvane", true),
                                 std::regex("([0-9a-f]{64}[.]ipk\n)*")));
    size_t requests = 0;  // of the manifest in this case (not of its signature)
    for (const auto& request : server.requests())
      requests += request.requestLine.find(".sig ") == npos;
    EXPECT_EQ(requests - seen, c.requests) << c.arguments;
    seen = requests;
  }

  // A main-B too small for the release: refused before any download.
  tamper("true", "3M");
  const uint64_t bytes = served();
  expectUntouched(install("release-2.0"), 19,
                  "not enough space in /dev/disk/by-partlabel/main-B: ");
  EXPECT_EQ(served(), bytes);
  // Left pointing at a half-written main-B, the boot selection is pointed back first.
  tamper("true");
  ASSERT_EQ(sh(setBootMode + "main-B", &out, true), 0) << out;
  EXPECT_EQ(update(install("broken")), 12) << out;
  EXPECT_HAS(out, R"("event":"boot-reset")");
  EXPECT_HAS(bootProperties(), "boot.bootmode=main-A\nboot.knowngood=main-A\nboot.otaretrycount=0");
  // Plain http and an older release, when the device's owner allows them.
  const std::string http = "http://127.0.0.1:" + harness::readFile(dir + "/http-port").substr(0, 5);
  EXPECT_EQ(update(plain + http + "/0.9/manifest --allow-downgrade"), 0) << out;
}

// The server dies half-way through a package: the update fails, and the re-run asks for the rest
// (Range) and fetches only that, or, from a server that ignores Range, the whole file again.
// Meanwhile a second update is refused, status answers at once, and SIGTERM stops an install.
TEST_F(UpdateEndToEnd, AServerThatDiesMidDownloadFailsTheUpdateAndARerunResumesIt) {
  // main-B holds release 2.0 first: each release below adds one package.
  ASSERT_EQ(update(install("release-2.0")), 0) << out;
  for (const std::string name : {"resume", "restart"}) {
    ASSERT_EQ(sh(setBootMode + "main-A", &out, true), 0) << out;
    const std::string big = withRandomData("big", name, 1 << 20);
    publish(name, {big}, true, url((name == "resume" ? "slow/" : "slow-norange/") + name));
    const std::string state = untouchable();
    Background run(command(install(name, "--retries-download 1")));
    ASSERT_TRUE(run.waitFor(R"("event":"progress")"));
    if (name == "resume") {
      EXPECT_EQ(update(install(name)), 14);
      EXPECT_HAS(out, "another selvane-update is running (it holds /run/lock/");
      // status neither waits for the lock nor takes it, and says why main-B is not shown.
      EXPECT_EQ(update("--json status"), 0) << out;
      EXPECT_HAS(out, R"("update_in_progress":true,"update_step":"downloading")");
    }
    ASSERT_EQ(sh(kSim + "stop-server " + dir), 0);
    EXPECT_EQ(run.wait(), 4);
    EXPECT_EQ(untouchable(), state);
    ASSERT_EQ(sh(kSim + "start-server " + dir), 0);
    const uint64_t before = served("big_");
    if (name == "resume") {  // SIGTERM once the package is being installed into main-B
      Background term(command(install(name), "echo $$ >" + dir + "/pid && exec "));
      ASSERT_TRUE(term.waitFor(R"("event":"install")"));
      ASSERT_EQ(kill(std::stoi(harness::readFile(dir + "/pid")), SIGTERM), 0);
      EXPECT_EQ(term.wait(), 15);
      EXPECT_EQ(untouchable(), state);
      EXPECT_FALSE(mounted());
    }
    EXPECT_EQ(update(install(name)), 0) << out;
    EXPECT_TRUE(bootsMainB());
    const uint64_t rerun = served("big_") - before;
    const uint64_t size = harness::readFile(big).size();
    EXPECT_TRUE(name == "resume" ? rerun > 0 && rerun < size : rerun == size) << rerun;
  }
}

// SIGKILL at random moments of a 20-package install, each kill followed by a re-run that may be
// killed in turn, then a last run to the end: the release ends installed and verified, the
// packages travel about once, and the boot selection never points at a half-written main-B.
// Then a release with one of the 20 packages changed fetches that package alone.
TEST_F(UpdateEndToEnd, KillAtRandomThenOneChangedPackage) {
  std::vector<std::string> first, second;
  for (int i = 1; i <= 16; ++i) {
    const std::string name = "app" + std::to_string(100 + i).substr(1);
    first.push_back(withRandomData(name, "1.0", 24 << 10));
    second.push_back(i == 7 ? withRandomData(name, "2.0", 24 << 10) : first.back());
  }
  publish("twenty", first, true, url("slow/twenty"));  // at 512 KiB/s: about 3 s
  const double size = std::stod(output("cat " + dir + "/www/twenty/*.ipk | wc -c"));
  // Each run is killed at a moment drawn from its first 0.8 s of work after its plan. Downloads and
  // installed packages carry over, so the kills walk through every step of the install; once a run
  // gets to the end, main-B is emptied and main-A selected again, and the kills start over.
  std::mt19937 random(20261125);
  std::uniform_real_distribution<double> moment(0, 0.8);
  int kills = 0, runs = 0;
  const std::string restart =
      "awk '$5 ~ /ota-mount/ { print $5 }' /proc/self/mountinfo | xargs -r umount -l && "
      "mkfs.ext3 -q -F /dev/disk/by-partlabel/main-B && " +
      setBootMode + "main-A";
  while (kills < 30) {
    ASSERT_LT(runs, 150) << "too few kills landed";
    Background run(command(install("twenty")) + " 2>/dev/null");
    ++runs;
    if (run.waitFor(R"("event":"plan")")) {
      std::this_thread::sleep_for(std::chrono::duration<double>(moment(random)));
      kill(-run.pid, SIGKILL);
    }
    const int status = run.wait();
    kills += status == 128 + SIGKILL;
    // A run that was not killed ends well: no kill leaves what the next run cannot mend.
    ASSERT_TRUE(status == 0 || status == 128 + SIGKILL)
        << "run " << runs << " (seed 20261125) after " << kills << " kills ended with " << status;
    if (bootsMainB()) {  // only once main-B holds the whole release
      ASSERT_EQ(update("--json status"), 0) << "run " << runs << out;
      EXPECT_HAS(out, R"("other_release":"twenty")");
      ASSERT_EQ(sh(restart, &out, true), 0) << out;
    }
  }
  ASSERT_EQ(update(install("twenty")), 0) << out;
  ASSERT_EQ(update("--json status"), 0) << out;
  EXPECT_HAS(out, R"("other_release":"twenty","update_in_progress":false,"update_step":null,)"
                  R"("boot":{"bootmode":"main-B")");
  const double fetched = served();
  const auto grouped = [](double n) {  // 1234567 as 1,234,567
    return std::regex_replace(std::to_string(static_cast<uint64_t>(n)),
                              std::regex(R"((\d)(?=(\d{3})+$))"), "$1,");
  };
  std::printf("kill-at-random: %d kills, %d runs, %s bytes fetched for a %s-byte release (%.2fx)\n",
              kills, runs, grouped(fetched).c_str(), grouped(size).c_str(), fetched / size);
  EXPECT_LT(fetched, 1.2 * size);

  publish("twenty-2", second);
  ASSERT_EQ(update(install("twenty-2")), 0) << out;
  const double changed = harness::readFile(second[6]).size(), downloaded = served() - fetched;
  EXPECT_LE(downloaded, 1.05 * changed);
  // The other 19 were all in main-B at the release's versions.
  EXPECT_TRUE(
      std::regex_search(out, std::regex(R"("install":\[\{"name":"app07","version":"2.0"[^\]]*)"
                                        R"(\],"unchanged":\[(\{[^}]*\},?){19}\])")))
      << out;
}
