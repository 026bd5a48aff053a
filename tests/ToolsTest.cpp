// The command lines of selvane-update and selvane-pack as their users meet them: help and
// versions, usage errors, the configuration file, checks made before any network access, bash
// completion and the systemd units. Nothing here needs a device.
#include <unistd.h>

#include "Harness.h"

namespace {

using harness::quote;
const std::string kBin = SELVANE_BINARY_DIR "/bin/";

class Tools : public ::testing::Test {
 protected:
  // Runs a tool; out gets its standard output, err its standard error.
  int run(const std::string& arguments, std::string* out = nullptr) {
    std::string output;
    const int status = harness::shell(
        SELVANE_TOOL_PREFIX + kBin + arguments + " 2>" + quote(dir / "stderr"), &output);
    err = harness::readFile(dir / "stderr");
    if (out != nullptr) *out = output;
    return status;
  }

  harness::ScratchDir dir;
  const std::string config = dir / "update.conf", keys = dir / "keys";
  const std::string update = "selvane-update --config " + config + " ";
  std::string err;
};

TEST_F(Tools, EverySubcommandHasItsHelpAndBothToolsTellTheirVersion) {
  std::string out;
  for (const std::string tool : {"selvane-update", "selvane-pack"}) {
    EXPECT_EQ(run(tool + " --version", &out), 0);
    EXPECT_EQ(out, tool + " " SELVANE_VERSION "\n");
    for (const std::string& sub :
         tool == "selvane-pack"
             ? std::vector<std::string>{"", " sign", " manifest", " sign-manifest", " show"}
             : std::vector<std::string>{"", " install", " check", " config", " status",
                                        " mark-good"}) {
      EXPECT_EQ(run(tool + sub + " --help", &out), 0) << sub << err;
      EXPECT_EQ(out.rfind("Usage: " + tool + sub + " [OPTIONS]", 0), 0u) << out;
    }
  }
}

// Every usage error and every setting that cannot work exits before any network access (the
// manifest URL points at a closed port), with a message that names what is wrong.
TEST_F(Tools, BadSettingsAreRefusedBeforeAnyDownload) {
  harness::shell("mkdir " + quote(keys));
  harness::writeFile(config, "");
  harness::writeFile(dir / "bad.conf", "# comment\n\nkeys = " + keys + "\nretries = many\n");
  harness::writeFile(dir / "typo.conf", "manifest = x\nkeyz = /k\n");
  const std::string url = " --manifest https://127.0.0.1:1/manifest",
                    cache = " --cache " + dir / "c";
  const std::string good = url + " --keys " + keys + cache, none = dir / "none";
  const std::pair<std::string, std::string> cases[] = {
      {"selvane-update install --bogus", "The following argument was not expected: --bogus"},
      {update + "install --retries x" + good, "--retries: takes a whole number"},
      {update + "install --keys " + keys + cache, "install needs --manifest"},
      {update + "install" + url + cache, "install needs --keys"},
      {update + "check" + url + cache, "check needs --keys"},
      {"selvane-update --config " + dir / "bad.conf" + " install" + good,
       "configuration file " + dir / "bad.conf" + ", line 4: retries takes a whole number"},
      {"selvane-update --config " + dir / "typo.conf" + " check", "line 2: unknown setting 'keyz'"},
      {"selvane-update --config " + none + " check" + good,
       "cannot read the configuration file " + none},
      {update + "install" + url + cache + " --keys " + none,
       "the key directory " + none + " is not a directory"},
      {update + "install --credentials " + none + good, "cannot read the credentials file " + none},
      {update + "check" + url + " --keys " + keys + " --cache " + config,
       "cannot use the cache directory"},
      {update + "check --allow-http --allow-unsigned-manifest" + good,
       "--allow-http needs a signed manifest"},
      {update + "check --manifest-max-size 0" + good, "--manifest-max-size must be at least 1"},
      {update + "check --manifest " + none + " --keys " + keys + cache,
       "manifest failed: there is no readable manifest file at"},
      {"selvane-pack sign --key k", "PACKAGE is required"}};
  for (const auto& [arguments, message] : cases) {
    std::string out;
    EXPECT_EQ(run(arguments, &out), message.find("manifest failed") == 0 ? 3 : 2) << arguments;
    EXPECT_NE(err.find(message), std::string::npos) << arguments << "\n" << err;
    EXPECT_EQ(out, "") << arguments;
  }
}

TEST_F(Tools, TheCommandLineOverridesTheConfigurationFile) {
  harness::writeFile(config,
                     "manifest = https://x.invalid/m\n  # retries = 9\nretries = 2\ntimeout=3\n");
  std::string out;
  ASSERT_EQ(run(update + "--json config --timeout 45", &out), 0) << err;
  for (const std::string& setting :
       {R"({"name":"manifest","value":"https://x.invalid/m","source":")" + config + R"(:1"})",
        std::string(R"({"name":"cache","value":"/var/cache/selvane","source":"default"})"),
        R"({"name":"retries","value":2,"source":")" + config + R"(:3"})",
        std::string(R"({"name":"timeout","value":45,"source":"command line"})")})
    EXPECT_NE(out.find(setting), std::string::npos) << setting << "\n" << out;
  run(update + "config", &out);
  EXPECT_NE(out.find("\nretries      = 2" + std::string(39, ' ') + "(" + config + ":3)\n"),
            std::string::npos)
      << out;
}

TEST_F(Tools, BashCompletesSubcommandsAndOptionsFromTheToolsHelp) {
#ifdef SELVANE_CROSS_EMULATOR
  GTEST_SKIP() << "bash runs the tools natively";
#endif
  const std::pair<const char*, const char*> cases[] = {
      {"selvane-update ins", "install"},
      {"selvane-pack s", "sign sign-manifest show"},
      {"selvane-pack sign --k", "--key"}};
  for (const auto& [line, expected] : cases) {
    std::string out;
    harness::shell("PATH=" + kBin + ":$PATH bash -c " +
                       quote(". " SELVANE_TEST_SOURCE_DIR "/../tools/completion/selvane.bash; "
                             "COMP_WORDS=(" +
                             std::string(line) +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); _selvane_complete; echo "
                             "\"${COMPREPLY[*]}\""),
                   &out);
    EXPECT_EQ(out, std::string(expected) + "\n") << line;
  }
}

TEST_F(Tools, SystemdAcceptsTheUnits) {
  if (harness::shell("command -v systemd-analyze >/dev/null") != 0)
    GTEST_SKIP() << "systemd-analyze is missing";
  SELVANE_REQUIRE_ROOT();
  // The units start the installed selvane-update: put the built one there, in this namespace.
  harness::makeHostPathWritable(SELVANE_INSTALL_BINDIR);
  ASSERT_EQ(harness::shell("ln -sf " + kBin + "selvane-update " SELVANE_INSTALL_BINDIR "/"), 0);
  const std::string man = SELVANE_BINARY_DIR "/man";
  std::string out;
  EXPECT_EQ(harness::shell("cd " SELVANE_BINARY_DIR "/systemd && " +
                               (access((man + "/man8/selvane-update.8").c_str(), F_OK) == 0
                                    ? "MANPATH=" + man + " systemd-analyze verify"
                                    : "systemd-analyze verify --man=no") +
                               " selvane-mark-good.service selvane-update.service "
                               "selvane-update.timer 2>&1",
                           &out),
            0)
      << out;
  EXPECT_EQ(out, "");
}

}  // namespace
