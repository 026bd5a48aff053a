// selvane-update on the simulated A/B device: the whole road of an update, and every way it can
// fail without touching the running root filesystem or the boot selection.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "Harness.h"
#include "HttpTestServer.h"
#include "PackageBuilder.h"

namespace {

const std::string kSim = SELVANE_TEST_SOURCE_DIR "/../tools/selvane-sim/selvane-sim";
const std::string kBin = SELVANE_BINARY_DIR "/bin";
const std::string kUpdate = kBin + "/selvane-update";

// The JSON Lines of selvane-update, schema 1, as README.md documents them: the fields of each
// event and their kinds (s string, S string or null, n whole number, p package, P list of
// packages, o object, a list).
const std::map<std::string, std::map<std::string, char>> kEvents = {
    {"manifest", {{"release", 's'}, {"packages", 'P'}}},
    {"plan",
     {{"release", 's'},
      {"rootfs", 's'},
      {"remove", 'P'},
      {"install", 'P'},
      {"unchanged", 'P'},
      {"download_bytes", 'n'}}},
    {"up-to-date", {{"release", 's'}, {"rootfs", 's'}}},
    {"download", {{"package", 'p'}}},
    {"progress",
     {{"bytes", 'n'}, {"total", 'n'}, {"bytes_per_second", 'n'}, {"seconds_left", 'n'}}},
    {"retry", {{"url", 's'}, {"attempt", 'n'}, {"reason", 's'}}},
    {"hook", {{"stage", 's'}, {"hook", 's'}, {"exit_code", 'n'}}},
    {"boot-reset", {{"bootmode", 's'}}},
    {"remove", {{"package", 'p'}}},
    {"install", {{"package", 'p'}}},
    {"configure", {}},
    {"verify", {}},
    {"sanity-check", {}},
    {"switched", {{"release", 's'}, {"bootmode", 's'}, {"retries", 'n'}}},
    {"status",
     {{"current", 's'},
      {"other", 's'},
      {"current_release", 'S'},
      {"other_release", 'S'},
      {"update_in_progress", 'b'},
      {"update_step", 'S'},
      {"boot", 'o'},
      {"other_packages", 'P'}}},
    {"known-good", {{"rootfs", 's'}}},
    {"config", {{"file", 's'}, {"settings", 'a'}}},
    {"failed", {{"class", 's'}, {"exit_code", 'n'}, {"message", 's'}}},
};

bool isPackage(const nlohmann::json& value) {
  if (!value.is_object() || !value["name"].is_string() || !value["version"].is_string())
    return false;
  for (const auto& [key, field] : value.items())
    if (!(key == "name" || key == "version" || (key == "size" && field.is_number_unsigned()) ||
          (key == "url" && field.is_string())))
      return false;
  return true;
}

bool hasKind(const nlohmann::json& value, char kind) {
  switch (kind) {
    case 's':
      return value.is_string();
    case 'S':
      return value.is_string() || value.is_null();
    case 'n':
      return value.is_number_unsigned();
    case 'p':
      return isPackage(value);
    case 'P':
      return value.is_array() && std::all_of(value.begin(), value.end(), isPackage);
    case 'o':
      return value.is_object();
    case 'b':
      return value.is_boolean();
    default:
      return value.is_array();
  }
}

// Every line of out is one event of the schema, with exactly its fields.
void expectSchema(const std::string& out) {
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    const nlohmann::json event = nlohmann::json::parse(line, nullptr, false);
    ASSERT_TRUE(event.is_object()) << "not a JSON object: " << line;
    EXPECT_EQ(event.value("schema", 0), 1) << line;
    EXPECT_TRUE(std::regex_match(event.value("time", ""),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)")))
        << line;
    const auto fields = kEvents.find(event.value("event", ""));
    ASSERT_NE(fields, kEvents.end()) << "unknown event: " << line;
    EXPECT_EQ(event.size(), fields->second.size() + 3) << line;
    for (const auto& [name, kind] : fields->second)
      EXPECT_TRUE(event.contains(name) && hasKind(event[name], kind)) << name << " in " << line;
  }
}

// A command running in the background, whose output is read line by line.
class Background {
 public:
  explicit Background(const std::string& command) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
    pid = fork();
    if (pid == 0) {
      dup2(fds[1], STDOUT_FILENO);
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
    close(fds[1]);
    out = fdopen(fds[0], "r");
  }
  ~Background() {
    if (pid > 0) {
      kill(pid, SIGKILL);
      wait();
    }
    if (out != nullptr) fclose(out);
  }
  // Reads lines until one contains text; false at the end of the output.
  bool waitFor(const std::string& text) {
    char line[4096];
    while (fgets(line, sizeof line, out) != nullptr) {
      if (std::string(line).find(text) != std::string::npos) return true;
    }
    return false;
  }
  // The pid of a process this command started, found by its name among its descendants.
  pid_t descendant(const std::string& name) const {
    std::vector<pid_t> family{pid};
    for (size_t i = 0; i < family.size(); ++i) {
      std::string children;
      harness::shell("cat /proc/" + std::to_string(family[i]) + "/task/*/children 2>/dev/null",
                     &children);
      std::istringstream list(children);
      for (pid_t child; list >> child;) {
        if (harness::readFile("/proc/" + std::to_string(child) + "/comm") == name + "\n")
          return child;
        family.push_back(child);
      }
    }
    return -1;
  }
  int wait() {
    int status = 0;
    waitpid(pid, &status, 0);
    pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

 private:
  pid_t pid = -1;
  FILE* out = nullptr;
};

class SimulatedDevice {
 public:
  explicit SimulatedDevice(const std::string& dir, const std::string& options = "") : dir(dir) {
    std::string output;
    created = harness::shell(
                  "SELVANE_BIN=" + kBin + " " + kSim + " create " + dir + " " + options + " 2>&1",
                  &output) == 0;
    if (!created) ADD_FAILURE() << "cannot create the simulated device: " << output;
  }
  ~SimulatedDevice() { harness::shell(kSim + " destroy " + dir); }

  // The device's shell command for selvane-update with these arguments.
  std::string updateCommand(const std::string& arguments) const {
    return kSim + " run " + dir + " -- " + kUpdate + " " + arguments;
  }
  // A JSON run's standard output only, checked against the schema; standard error too otherwise.
  int update(const std::string& arguments, std::string* output = nullptr) const {
    std::string out;
    const bool json = arguments.compare(0, 6, "--json") == 0;
    const int status =
        harness::shell(updateCommand(arguments) + (json ? " 2>" + dir + "/stderr" : " 2>&1"), &out);
    if (json) expectSchema(out);
    if (output != nullptr) *output = out;
    return status;
  }
  std::string install(const std::string& release, const std::string& extra = "") const {
    return "--json install --manifest " + url(release + "/manifest") + " --keys " + dir +
           "/keys/trusted --retries 3 " + extra;
  }
  int sim(const std::string& arguments, std::string* output = nullptr) const {
    return harness::shell(kSim + " " + arguments + " 2>&1", output);
  }
  std::string url(const std::string& path) const {
    return "https://localhost:" + harness::readFile(dir + "/port").substr(0, 5) + "/" + path;
  }
  std::string bootProperties() const {
    std::string out;
    sim("env " + dir, &out);
    return out;
  }
  std::string digest(const std::string& file) const {
    std::string out;
    harness::shell("sha256sum " + harness::quote(file) + " | cut -c1-64", &out);
    return out;
  }
  // The running root and the boot environment, to compare before and after a failure.
  std::string untouchable() const {
    return digest(dir + "/images/main-A.img") + digest(dir + "/env/uboot-1.env") +
           digest(dir + "/env/uboot-2.env");
  }
  // Bytes of packages (whose URL holds name) the server sent so far in answers it completed.
  uint64_t packageBytesServed(const std::string& name = "") const {
    std::ifstream log(dir + "/nginx/logs/access.log");
    std::string uri, status;
    uint64_t bytes, total = 0;
    while (log >> uri >> status >> bytes)
      if (uri.size() > 4 && uri.compare(uri.size() - 4, 4, ".ipk") == 0 &&
          uri.find(name) != std::string::npos)
        total += bytes;
    return total;
  }
  // Publishes a release under www/NAME, its manifest signed with the release key (or key):
  // release 2.0's packages, replaced or joined by others, served from base (default www/NAME).
  void publish(const std::string& name, const std::vector<std::string>& packages,
               bool keepBase = true, const std::string& base = "",
               const std::string& key = "") const {
    const std::string out = dir + "/www/" + name;
    std::string command = "mkdir -p " + out;
    if (keepBase) command += " && cp " + dir + "/www/release-2.0/*.ipk " + out;
    for (const std::string& package : packages) {
      command += " && rm -f " + out + "/$(basename " + package + " | cut -d_ -f1)_*.ipk";
      command += " && cp " + package + " " + out;
    }
    command += " && " + kBin + "/selvane-pack manifest --version " + name + " --base-url " +
               (base.empty() ? url(name) : base) + " --output " + out + "/manifest " + out +
               "/*.ipk && " + kBin + "/selvane-pack sign-manifest --key " +
               (key.empty() ? dir + "/keys/release.pem" : key) + " " + out + "/manifest";
    std::string output;
    ASSERT_EQ(harness::shell(command + " 2>&1", &output), 0) << output;
  }
  std::string sign(const std::string& package, const std::string& key = "") const {
    std::string output;
    EXPECT_EQ(harness::shell(kBin + "/selvane-pack sign --key " +
                                 (key.empty() ? dir + "/keys/release.pem" : key) + " " + package +
                                 " 2>&1",
                             &output),
              0)
        << output;
    return package;
  }
  std::string mounts() const {
    std::string out;
    sim("run " + dir + " -- cat /proc/self/mountinfo", &out);
    return out;
  }

  const std::string dir;
  bool created = false;
};

class UpdateEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
#ifdef SELVANE_CROSS_EMULATOR
    GTEST_SKIP() << "the simulated device runs the update client natively, not under an emulator";
#endif
    SELVANE_REQUIRE_ROOT();
    if (harness::shell("command -v nginx >/dev/null && command -v fw_printenv >/dev/null") != 0)
      FAIL() << "nginx and fw_printenv are missing: run scripts/install-deps.sh";
  }

  // A package for this device, signed with its release key unless said otherwise.
  std::string package(const SimulatedDevice& device, fixtures::PackageRecipe recipe,
                      bool sign = true) const {
    const std::string path = fixtures::buildPackage(recipe, packages.path());
    return sign ? device.sign(path) : path;
  }
  fixtures::PackageRecipe withRandomData(const std::string& name, const std::string& version,
                                         size_t bytes) const {
    fixtures::PackageRecipe recipe;
    recipe.name = name;
    recipe.version = version;
    std::string data;
    harness::shell("head -c " + std::to_string(bytes) + " /dev/urandom | base64 -w0", &data);
    recipe.files["/usr/share/" + name + "/data"] = data;
    return recipe;
  }

  harness::ScratchDir scratch;
  harness::ScratchDir packages;
};

}  // namespace

TEST_F(UpdateEndToEnd, InstallsTheNextReleaseSwitchesTheBootAndBootsIt) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  const std::string runningRoot = device.digest(device.dir + "/images/main-A.img");
  std::string out;
  // A boot environment that does not take the switch: the selection stays, and says so.
  const std::string env = device.dir + "/env", before = device.bootProperties();
  ASSERT_EQ(harness::shell(kSim + " run " + device.dir + " -- unshare -m sh -c 'mount --bind " +
                               env + " " + env + " && mount -o remount,ro,bind " + env + " && " +
                               kUpdate + " " + device.install("release-2.0") + "' 2>&1",
                           &out),
            13)
      << out;
  EXPECT_NE(out.find("the previous selection boot.bootmode=main-A, boot.otaretrycount=0 is back"),
            std::string::npos)
      << out;
  EXPECT_EQ(device.bootProperties(), before);
  ASSERT_EQ(device.update(device.install("release-2.0"), &out), 0) << out;
  EXPECT_NE(out.find("\"event\":\"switched\""), std::string::npos) << out;
  EXPECT_NE(device.bootProperties().find("boot.bootmode=main-B\n"), std::string::npos);
  EXPECT_NE(device.bootProperties().find("boot.otaretrycount=3\n"), std::string::npos);
  EXPECT_EQ(device.digest(device.dir + "/images/main-A.img"), runningRoot);
  EXPECT_EQ(device.mounts().find("ota-mount"), std::string::npos) << "the other root is unmounted";

  // Again: nothing to download, nothing to write.
  const uint64_t served = device.packageBytesServed();
  const std::string state = device.untouchable() + device.digest(device.dir + "/images/main-B.img");
  ASSERT_EQ(device.update(device.install("release-2.0"), &out), 0) << out;
  EXPECT_NE(out.find("\"event\":\"up-to-date\""), std::string::npos) << out;
  EXPECT_EQ(device.packageBytesServed(), served);
  EXPECT_EQ(device.untouchable() + device.digest(device.dir + "/images/main-B.img"), state);
  ASSERT_EQ(device.update("check --manifest " + device.url("release-2.0/manifest") + " --keys " +
                              device.dir + "/keys/trusted",
                          &out),
            0);
  EXPECT_NE(out.find("0 to install, 0 to remove, 4 unchanged"), std::string::npos) << out;

  // "Boot" main-B: the new release runs there, and marks itself known good.
  ASSERT_EQ(device.sim("boot " + device.dir + " main-B -- /usr/bin/hello", &out), 0) << out;
  EXPECT_NE(out.find("hello from release 2.0"), std::string::npos) << out;
  EXPECT_NE(out.find("configured on"), std::string::npos) << "the postinst ran in main-B";
  ASSERT_EQ(
      device.sim("boot " + device.dir + " main-B -- /run/selvane/selvane-update mark-good", &out),
      0)
      << out;
  EXPECT_NE(device.bootProperties().find("boot.knowngood=main-B\n"), std::string::npos);
  out.clear();
  ASSERT_EQ(
      device.sim("boot " + device.dir + " main-B -- /run/selvane/selvane-update --json status",
                 &out),
      0)
      << out;
  EXPECT_NE(out.find("\"current\":\"main-B\",\"other\":\"main-A\",\"current_release\":\"2.0\","
                     "\"other_release\":\"1.0\""),
            std::string::npos)
      << out;
  expectSchema(out);
  EXPECT_NE(
      out.find("\"boot\":{\"bootmode\":\"main-B\",\"otaretrycount\":3,\"knowngood\":\"main-B\"}"),
      std::string::npos)
      << out;
  EXPECT_NE(out.find("{\"name\":\"hello\",\"version\":\"1.0\"}"), std::string::npos)
      << "main-A's packages are listed: " << out;
}

TEST_F(UpdateEndToEnd, PackagesThatFailTheirChecksChangeNothing) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  const std::string good = package(device, withRandomData("extra", "1.0", 20000));
  const std::string otherKey = scratch / "other.pem";
  ASSERT_EQ(harness::shell("openssl genrsa -out " + otherKey + " 2048 2>/dev/null"), 0);

  // One byte changed inside data.tar.gz (the random data, 1000 bytes before the signature's end),
  // so that the control data that selvane-pack reads stays intact.
  const auto changeAByte = [](const std::string& f) {
    harness::shell("printf 'X' | dd of=" + f + " bs=1 seek=$(($(stat -c %s " + f +
                   ") - 1000)) conv=notrunc 2>/dev/null");
  };
  struct Case {
    const char* release;
    std::function<void(const std::string& served)> spoil;  // applied after the manifest is made
    std::function<void(const std::string& file)> before;   // applied before it is made
    int exitCode;
    const char* message;
  } cases[] = {
      {"tampered", nullptr, changeAByte, 7, "is not signed by any key"},
      {"digest", changeAByte, nullptr, 6, "does not match the manifest"},
      {"truncated", [](const std::string& f) { harness::shell("truncate -s -10 " + f); }, nullptr,
       5, "the manifest says"},
      {"unknown-key", nullptr, [&](const std::string& f) { device.sign(f, otherKey); }, 7,
       "is not signed by any key"},
  };
  const std::string state = device.untouchable() + device.digest(device.dir + "/images/main-B.img");
  for (const Case& c : cases) {
    const std::string copy = packages / (std::string(c.release) + "/extra_1.0_all.ipk");
    harness::shell("mkdir -p " + packages / c.release + " && cp " + good + " " + copy);
    if (c.before) c.before(copy);
    device.publish(c.release, {copy});
    if (c.spoil) c.spoil(device.dir + "/www/" + c.release + "/extra_1.0_all.ipk");
    std::string out;
    EXPECT_EQ(device.update(device.install(c.release), &out), c.exitCode) << c.release << out;
    EXPECT_NE(out.find(c.message), std::string::npos) << c.release << out;
    EXPECT_EQ(device.untouchable() + device.digest(device.dir + "/images/main-B.img"), state)
        << c.release << ": nothing is written before every download checked out";
  }
}

TEST_F(UpdateEndToEnd, AFailingSanityCheckKeepsTheBootSelection) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  fixtures::PackageRecipe broken;  // a base whose check rejects the new root
  broken.name = "base-files";
  broken.version = "2.0-broken";
  broken.executables["/usr/local/bin/ota-sanity-check.sh"] = "#!/bin/sh\nexit 1\n";
  const std::string state = device.untouchable();
  device.publish("broken", {package(device, broken)});
  std::string out;
  EXPECT_EQ(device.update(device.install("broken"), &out), 12) << out;
  EXPECT_NE(out.find("ota-sanity-check.sh"), std::string::npos) << out;
  EXPECT_EQ(device.untouchable(), state);
  EXPECT_EQ(device.mounts().find("ota-mount"), std::string::npos);

  // Left pointing at the half-written main-B, the boot selection is pointed back first.
  ASSERT_EQ(
      device.sim("run " + device.dir + " -- fw_setenv -c " + device.dir + "/env/fw_env.config -f " +
                 device.dir + "/env/initial-env boot.bootmode main-B"),
      0);
  EXPECT_EQ(device.update(device.install("broken"), &out), 12) << out;
  EXPECT_NE(out.find("\"event\":\"boot-reset\""), std::string::npos) << out;
  EXPECT_NE(device.bootProperties().find("boot.bootmode=main-A\n"), std::string::npos);
  EXPECT_NE(device.bootProperties().find("boot.otaretrycount=0\n"), std::string::npos);
}

// A release that drops hello and moves the shell from busybox to a package of another name: the
// shell's old package goes last, after the installs, so that the package tool never runs without
// it.
TEST_F(UpdateEndToEnd, AReleaseThatMovesTheShellToAnotherPackageRemovesTheOldOneLast) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  std::string out;
  ASSERT_EQ(device.update(device.install("release-2.0"), &out), 0) << out;
  fixtures::PackageRecipe toolbox, greeter;
  toolbox.name = "toolbox";
  toolbox.executables["/bin/busybox"] = harness::readFile("/bin/busybox");
  std::istringstream applets(
      "sh ash echo cat env ls mkdir rm rmdir cp mv test [ sha256sum sed grep awk sleep true false "
      "id pwd printf touch ln readlink head tail wc tr cut sort uname chmod find xargs stat mktemp "
      "basename dirname tar gzip gunzip zcat ar expr date kill uniq od dd sync");
  for (std::string applet; applets >> applet;) toolbox.links["/bin/" + applet] = "busybox";
  toolbox.links["/usr/bin/env"] = "../../bin/env";
  greeter.name = "greeter";
  greeter.executables["/usr/bin/hello"] = "#!/bin/sh\necho hello from greeter\n";
  const std::string base = device.dir + "/www/release-2.0/";
  device.publish("shell-moved",
                 {base + "base-files_*.ipk", base + "opkg_*.ipk", package(device, toolbox),
                  package(device, greeter)},
                 false);
  ASSERT_EQ(device.update(device.install("shell-moved"), &out), 0) << out;
  EXPECT_NE(out.find("\"remove\":[{\"name\":\"hello\",\"version\":\"2.0\"},"
                     "{\"name\":\"busybox\",\"version\":\"1.35.0\"}]"),
            std::string::npos)
      << out;
  ASSERT_EQ(device.sim("boot " + device.dir + " main-B -- /usr/bin/hello", &out), 0) << out;
  EXPECT_NE(out.find("hello from greeter"), std::string::npos) << out;
  ASSERT_EQ(device.update("--json status", &out), 0) << out;
  EXPECT_NE(out.find("\"other_packages\":[{\"name\":\"base-files\",\"version\":\"2.0\"},"
                     "{\"name\":\"greeter\",\"version\":\"1.0\"},{\"name\":\"opkg\",\"version\":"
                     "\"0.1\"},{\"name\":\"toolbox\",\"version\":\"1.0\"}]"),
            std::string::npos)
      << out;
}

// The server dies half-way through a package; the re-run asks for the rest (Range) and fetches
// only that, or, from a server that ignores Range, the whole file again from its start.
TEST_F(UpdateEndToEnd, AServerThatDiesMidDownloadFailsTheUpdateAndARerunResumesIt) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  const struct {
    const char* path;      // the release
    const char* location;  // where the server sends its packages from
    bool resumes;
  } cases[] = {{"resume", "slow/", true}, {"restart", "slow-norange/", false}};
  for (const auto& c : cases) {
    const std::string big = package(device, withRandomData("big", c.path, 3 << 20));
    const std::string name = std::string("big_") + c.path;
    device.publish(c.path, {big}, true, device.url(c.location + std::string(c.path)));
    const std::string state = device.untouchable();
    {
      Background update(device.updateCommand(device.install(c.path, "--retries-download 1")));
      ASSERT_TRUE(update.waitFor("\"package\":{\"name\":\"big\""));
      ASSERT_TRUE(update.waitFor("\"event\":\"progress\""));
      ASSERT_EQ(device.sim("stop-server " + device.dir), 0);
      EXPECT_EQ(update.wait(), 4) << c.path;
    }
    EXPECT_EQ(device.untouchable(), state);
    ASSERT_EQ(device.sim("start-server " + device.dir), 0);
    const uint64_t before = device.packageBytesServed(name), size = harness::readFile(big).size();
    std::string out;
    EXPECT_EQ(device.update(device.install(c.path), &out), 0) << out;
    EXPECT_NE(device.bootProperties().find("boot.bootmode=main-B\n"), std::string::npos);
    const uint64_t rerun = device.packageBytesServed(name) - before;
    std::printf("%s: the re-run fetched %llu bytes of a %llu-byte package cut part-way\n", c.path,
                static_cast<unsigned long long>(rerun), static_cast<unsigned long long>(size));
    if (c.resumes) {
      EXPECT_GT(rerun, 0u);
      EXPECT_LT(rerun, size);
    } else {
      EXPECT_EQ(rerun, size);
    }
  }
}

// Transient failures are tried again after growing pauses, final answers are not, and a network
// that stays down is a download failure (4), never a bad manifest (3).
TEST_F(UpdateEndToEnd, TransientFailuresAreRetriedAndFinalAnswersAreNot) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  fixtures::HttpTestServer server;
  struct Case {
    std::string url, options;
    int exitCode;
    size_t requests;  // for url
    const char* message;
  } cases[] = {
      // The manifest comes on the third try; its signature is then checked (and is garbage).
      {server.url("/flaky/2/100"), "", 7, 3, "is not signed"},
      {server.url("/status/404"), "", 3, 1, "404"},
      {server.url("/status/429"), "--retries-download 1", 4, 2, "(2 tries)"},
      {server.url("/stall/100"), "--retries-download 1 --stall-timeout 1", 4, 2,
       "nothing arrived for 1 s"},
      {"http://127.0.0.1:1/manifest", "--retries-download 0", 4, 0, "(1 tries)"},
  };
  for (const Case& c : cases) {
    std::string out;
    EXPECT_EQ(device.update("install --allow-http --keys " + device.dir + "/keys/trusted " +
                                "--manifest " + c.url + " " + c.options,
                            &out),
              c.exitCode)
        << c.url << "\n"
        << out;
    EXPECT_NE(out.find(c.message), std::string::npos) << c.url << "\n" << out;
    size_t requests = 0;
    for (const fixtures::RecordedRequest& request : server.requests())
      requests += request.requestLine == "GET " + c.url.substr(c.url.find('/', 7)) + " HTTP/1.1";
    EXPECT_EQ(requests, c.requests) << c.url;
  }
}

TEST_F(UpdateEndToEnd, AMainBTooSmallForTheReleaseFailsBeforeAnyDownload) {
  SimulatedDevice device(scratch / "device", "--main-b-size 8M");
  ASSERT_TRUE(device.created);
  device.publish("huge", {package(device, withRandomData("huge", "1.0", 9 << 20))});
  const std::string state = device.untouchable();
  std::string out;
  EXPECT_EQ(device.update(device.install("huge"), &out), 19) << out;
  EXPECT_NE(out.find("not enough space in /dev/disk/by-partlabel/main-B: "), std::string::npos)
      << out;
  EXPECT_EQ(device.untouchable(), state);
  EXPECT_EQ(device.packageBytesServed(), 0u) << "nothing is downloaded first";
}

TEST_F(UpdateEndToEnd, OneUpdateAtATimeAndSigtermAbortsCleanly) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  device.publish("big", {package(device, withRandomData("big", "1.0", 2 << 20))}, true,
                 device.url("slow/big"));
  const std::string state = device.untouchable();
  Background first(device.updateCommand(device.install("big")));
  ASSERT_TRUE(first.waitFor("\"event\":\"download\""));
  std::string out;
  EXPECT_EQ(device.update(device.install("big"), &out), 14) << out;
  EXPECT_NE(out.find("another selvane-update is running"), std::string::npos) << out;
  // status neither waits for the lock nor takes it, and says why main-B is not shown.
  EXPECT_EQ(device.update("--json status", &out), 0) << out;
  EXPECT_NE(out.find("\"update_in_progress\":true"), std::string::npos) << out;
  EXPECT_NE(out.find("\"update_step\":\"downloading\""), std::string::npos) << out;

  // SIGTERM once the first package is being installed into main-B.
  ASSERT_TRUE(first.waitFor("\"event\":\"install\""));
  const pid_t client = first.descendant("selvane-update");
  ASSERT_GT(client, 0);
  ASSERT_EQ(kill(client, SIGTERM), 0);
  EXPECT_EQ(first.wait(), 15);
  EXPECT_EQ(device.untouchable(), state);
  EXPECT_EQ(device.mounts().find("ota-mount"), std::string::npos);
  // The checked downloads stay: the retry fetches nothing.
  const uint64_t served = device.packageBytesServed();
  EXPECT_EQ(device.update(device.install("big"), &out), 0) << out;
  EXPECT_EQ(device.packageBytesServed(), served);
}

TEST_F(UpdateEndToEnd, AReleaseWithOneChangedPackageDownloadsOnlyThatPackage) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  std::vector<std::string> first, second;
  for (int i = 1; i <= 16; ++i) {
    const std::string name = "app" + std::to_string(100 + i).substr(1);
    first.push_back(package(device, withRandomData(name, "1.0", 32 << 10)));
    second.push_back(i == 7 ? package(device, withRandomData(name, "2.0", 32 << 10))
                            : first.back());
  }
  device.publish("twenty-1", first);
  device.publish("twenty-2", second);
  std::string out;
  ASSERT_EQ(device.update(device.install("twenty-1"), &out), 0) << out;
  const uint64_t before = device.packageBytesServed();
  ASSERT_EQ(device.update(device.install("twenty-2"), &out), 0) << out;
  const uint64_t changed = harness::readFile(second[6]).size();
  const uint64_t downloaded = device.packageBytesServed() - before;
  std::printf("one of 20 packages changed: %llu bytes downloaded for a %llu-byte package (%.3fx)\n",
              static_cast<unsigned long long>(downloaded), static_cast<unsigned long long>(changed),
              static_cast<double>(downloaded) / static_cast<double>(changed));
  EXPECT_LE(static_cast<double>(downloaded), 1.05 * static_cast<double>(changed));
  EXPECT_NE(out.find("\"install\":[{\"name\":\"app07\",\"version\":\"2.0\","), std::string::npos)
      << out;
}

TEST_F(UpdateEndToEnd, HooksRunAroundAnInstallConfiguredByItsFile) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  const std::string hooks = device.dir + "/etc/selvane/hooks", log = device.dir + "/hooks.log";
  harness::writeFile(device.dir + "/etc/selvane/update.conf",
                     "manifest = " + device.url("release-2.0/manifest") + "\nkeys = " + device.dir +
                         "/keys/trusted\nretries = 2\n");
  const auto hook = [&](const std::string& name, const std::string& body, unsigned mode = 0755) {
    harness::shell("mkdir -p " + hooks + "/" + name.substr(0, name.find('/')));
    harness::writeFile(hooks + "/" + name, "#!/bin/sh\n" + body + "\n", mode);
  };
  // What each hook sees; their output must stay off the JSON stream.
  hook("pre-install.d/10-record",
       "echo hello; test -d \"$SELVANE_OTHER_MOUNTPOINT/lost+found\" && echo \"$1 $SELVANE_RELEASE "
       "$SELVANE_OTHER_ROOT mounted\" >>" +
           log);
  hook("pre-install.d/20-refuse", "exit 3");
  hook("pre-install.d/15-not-executable", "exit 1", 0644);
  hook("post-install.d/10-record", "echo \"$1 $SELVANE_RELEASE $SELVANE_OTHER_ROOT\" >>" + log);
  hook("on-failure.d/10-record", "echo \"$1 $SELVANE_FAILURE $SELVANE_EXIT_CODE\" >>" + log);
  const std::string state = device.untouchable() + device.digest(device.dir + "/images/main-B.img");
  std::string out;
  EXPECT_EQ(device.update("--json install", &out), 18) << out;
  EXPECT_NE(
      out.find("the pre-install hook /etc/selvane/hooks/pre-install.d/20-refuse exited with 3"),
      std::string::npos)
      << out;
  EXPECT_EQ(device.untouchable() + device.digest(device.dir + "/images/main-B.img"), state);
  EXPECT_EQ(harness::readFile(log),
            "pre-install 2.0 main-B mounted\non-failure pre-install-hook 18\n");

  // Without the refusing hook the install goes through, with the retries of the file.
  ASSERT_EQ(unlink((hooks + "/pre-install.d/20-refuse").c_str()), 0);
  ASSERT_EQ(device.update("--json install", &out), 0) << out;
  EXPECT_NE(device.bootProperties().find("boot.otaretrycount=2\n"), std::string::npos);
  EXPECT_EQ(harness::readFile(log),
            "pre-install 2.0 main-B mounted\non-failure pre-install-hook 18\n"
            "pre-install 2.0 main-B mounted\npost-install 2.0 main-B\n");
  EXPECT_NE(harness::readFile(device.dir + "/stderr").find("hello\n"), std::string::npos);
}

// Attacks by a hostile server, a hostile manifest and a tampered main-B. Each one ends with its
// exit code, and with main-A, the boot properties and the host outside main-B and the cache as
// they were: HOST is a host directory that the attacks aim at, full of bait.
TEST_F(UpdateEndToEnd, HostileServersManifestsAndRootsAreRefused) {
  SimulatedDevice device(scratch / "device");
  ASSERT_TRUE(device.created);
  const std::string host = scratch / "host", otherKey = scratch / "other.pem";
  ASSERT_EQ(harness::shell("mkdir -p " + host + "/var-lib/opkg " + host + "/tmp " + host +
                           "/etc && for f in var-lib/opkg/status var-lib/opkg/lock tmp/bait "
                           "etc/bait bait_x.ipk; do echo bait >" +
                           host + "/$f; done && " + "openssl genrsa -out " + otherKey +
                           " 2048 2>/dev/null"),
            0);
  const std::string escape = "../../../../../../../.." + host;  // from the cache, onto HOST
  const std::string www = device.dir + "/www/", keys = " --keys " + device.dir + "/keys/trusted";
  const std::string release2 = www + "release-2.0/";
  auto extra = [&](fixtures::PackageRecipe recipe) { return package(device, recipe); };
  auto fresh = [&] { return extra(withRandomData("extra", "1.0", 1000)); };
  auto named = [](const std::string& name, const std::string& version) {
    fixtures::PackageRecipe recipe;
    recipe.name = "extra";
    recipe.rawControl = "Package: " + name + "\nVersion: " + version +
                        "\nArchitecture: all\nMaintainer: x\nDescription: x\n";
    return recipe;
  };
  // A fresh main-B, changed by a shell command run at its top.
  auto tamper = [&](const std::string& command) {
    const std::string mnt = device.dir + "/mnt/tamper";
    ASSERT_EQ(device.sim(
                  "run " + device.dir + " -- sh -c " +
                  harness::quote("mkfs.ext3 -q -F /dev/disk/by-partlabel/main-B && mkdir -p " +
                                 mnt + " && mount /dev/disk/by-partlabel/main-B " + mnt +
                                 " && cd " + mnt + " && " + command + " && cd / && umount " + mnt)),
              0);
  };
  auto served = [&](const std::string& release) { return www + release + "/extra_1.0_all.ipk"; };
  auto snapshot = [&] {
    std::string out;
    harness::shell("cd " + host +
                       " && find . -printf '%p %s %y %l\\n' | sort && cat $(find . "
                       "-type f | sort)",
                   &out);
    return device.untouchable() + device.bootProperties() + out;
  };

  struct Attack {
    const char* name;
    std::function<void()> prepare;
    std::string arguments;  // appended to install: the release's manifest, or more
    int exitCode;
    const char* message;
  };
  const std::string manifest = "--json install" + keys + " --manifest " + device.url("");
  const std::vector<Attack> attacks = {
      {"appended-members",
       [&] {
         const std::string good = extra(withRandomData("extra", "1.0", 2000));
         const std::string evil = package(device, [] {
           fixtures::PackageRecipe recipe;
           recipe.name = "evil";
           recipe.scripts["postinst"] = "#!/bin/sh\ntouch /evil\n";
           recipe.executables["/etc/init.d/evil"] = "#!/bin/sh\n";
           return recipe;
         }());
         harness::shell("cd " + packages.path() + " && ar x " + evil +
                        " control.tar.gz data.tar.gz && ar q " + good +
                        " control.tar.gz data.tar.gz");
         device.publish("appended", {good});
       },
       "appended/manifest", 7, "extra 1.0"},
      {"name-out-of-cache", [&] { device.publish("name", {extra(named(escape + "/bait", "x"))}); },
       "name/manifest", 3, "name of a package"},
      {"version-out-of-cache",
       [&] { device.publish("version", {extra(named("extra", "1.0/" + escape))}); },
       "version/manifest", 3, "version of package extra"},
      {"unsigned-manifest",
       [&] {
         device.publish("unsigned", {});
         std::remove((www + "unsigned/manifest.sig").c_str());
       },
       "unsigned/manifest", 7, "is not signed"},
      {"manifest-signed-by-another-key",
       [&] { device.publish("missigned", {}, true, "", otherKey); }, "missigned/manifest", 7,
       "is not signed by any key"},
      {"http-without-a-signed-manifest", nullptr,
       "release-2.0/manifest --allow-http --allow-unsigned-manifest", 2, "--allow-http"},
      {"older-release", [&] { device.publish("0.9", {}); }, "0.9/manifest", 17,
       "older than the running release 1.0"},
      {"release-without-the-sanity-check",
       [&] {
         device.publish("nocheck",
                        {release2 + "busybox_1.35.0_all.ipk", release2 + "opkg_0.1_all.ipk",
                         release2 + "hello_2.0_all.ipk"},
                        false);
       },
       "nocheck/manifest", 12, "without /usr/local/bin/ota-sanity-check.sh"},
      {"sums-entry-out-of-root",
       [&] {
         fixtures::PackageRecipe recipe = withRandomData("sums", "1.0", 100);
         recipe.withSha256Sums = false;
         recipe.scripts["sha256sums"] = std::string(64, '0') + "  ../../dev/zero\n";
         device.publish("sums", {extra(recipe)});
       },
       "sums/manifest", 11, "do not match their packages"},
      {"oversize-body",
       [&] {
         device.publish("oversize", {fresh()});
         harness::shell("truncate -s 200M " + served("oversize"));
       },
       "oversize/manifest", 5, "the transfer was stopped"},
      {"endless-body",
       [&] {
         device.publish("endless", {fresh()}, true, device.url("unsized/endless"));
         harness::shell("truncate -s 1T " + served("endless"));
       },
       "endless/manifest", 5, "the transfer was stopped"},
      {"huge-manifest",
       [&] {
         harness::shell("mkdir -p " + www + "huge && truncate -s 300M " + www + "huge/manifest");
       },
       "huge/manifest", 5, "the transfer was stopped"},
      {"redirect-to-http",
       [&] { device.publish("via-http", {fresh()}, true, device.url("to-http/via-http")); },
       "via-http/manifest", 4, "Protocol \\\"http\\\" not supported"},
      {"redirect-to-file",
       [&] { device.publish("via-file", {fresh()}, true, device.url("to-file/via-file")); },
       "via-file/manifest", 4, "Protocol \\\"file\\\" not supported"},
      {"redirect-to-ftp",
       [&] { device.publish("via-ftp", {fresh()}, true, device.url("to-ftp/via-ftp")); },
       "via-ftp/manifest", 4, "Protocol \\\"ftp\\\" not supported"},
      {"file-url",
       [&] { device.publish("file-url", {fresh()}, true, "file://" + www + "file-url"); },
       "file-url/manifest", 4, "Protocol \\\"file\\\" not supported"},
      {"symlinked-release-record",
       [&] { tamper("mkdir etc && ln -s " + host + "/etc/bait etc/selvane-release.new"); },
       "release-2.0/manifest", 16, "/etc/selvane-release.new"},
      {"symlinked-var-lib", [&] { tamper("mkdir var && ln -s " + host + "/var-lib var/lib"); },
       "release-2.0/manifest", 16, "/var/lib"},
      {"symlinked-tmp", [&] { tamper("ln -s " + host + "/tmp tmp"); }, "release-2.0/manifest", 16,
       "/tmp"},
      {"symlinked-package-directory",
       [&] { tamper("mkdir usr && ln -s " + host + "/tmp usr/share"); }, "release-2.0/manifest", 16,
       "/usr/share"},
      {"relative-link-out",
       [&] {
         tamper("mkdir -p usr/local && ln -s ../../../../../../../.." + host + " usr/local/bin");
       },
       "release-2.0/manifest", 16, "/usr/local/bin"},
  };
  for (const Attack& attack : attacks) {
    if (attack.prepare) attack.prepare();
    const std::string before = snapshot();
    std::string out;
    EXPECT_EQ(device.update(manifest + attack.arguments, &out), attack.exitCode)
        << attack.name << "\n"
        << out;
    EXPECT_NE(out.find(attack.message), std::string::npos) << attack.name << "\n" << out;
    EXPECT_EQ(snapshot(), before) << attack.name;
    std::string cache;  // checked packages only: no manifest, no partial download
    device.sim("run " + device.dir + " -- ls -A /var/cache/selvane", &cache);
    EXPECT_EQ(
        harness::shell("echo " + harness::quote(cache) + " | grep -vE '^[0-9a-f]{64}[.]ipk$|^$'"),
        1)
        << attack.name << ": " << cache;
  }

  // Plain http and an older release, when the device's owner allows them.
  tamper("true");
  std::string out;
  EXPECT_EQ(
      device.update("install" + keys + " --allow-http --allow-downgrade --manifest http://" +
                        "127.0.0.1:" + harness::readFile(device.dir + "/http-port").substr(0, 5) +
                        "/0.9/manifest",
                    &out),
      0)
      << out;
  EXPECT_NE(device.bootProperties().find("boot.bootmode=main-B\n"), std::string::npos);
}
