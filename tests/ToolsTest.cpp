// The command lines of selvane-update and selvane-pack as their users meet them: help and
// versions, usage errors, the configuration file, checks made before any network access, bash
// completion and the systemd units. Nothing here needs a device.
#include "Harness.h"

namespace {

using harness::quote;
const std::string kBin = SELVANE_BINARY_DIR "/bin/";

// Each test runs the tools in a directory of its own.
class Tools : public ::testing::Test {
 protected:
  // Runs a tool in dir; out gets its standard output, err its standard error.
  int run(const std::string& arguments) {
    out.clear();
    const int status = harness::shell(
        "cd " + quote(dir.path()) + " && " SELVANE_TOOL_PREFIX + kBin + arguments + " 2>stderr",
        &out);
    err = harness::readFile(dir / "stderr");
    return status;
  }

  harness::ScratchDir dir;
  const std::string update = "selvane-update --config update.conf ";
  std::string out, err;
};

TEST_F(Tools, EverySubcommandHasItsHelpAndBothToolsTellTheirVersion) {
  for (const std::string tool : {"selvane-update", "selvane-pack"})
    EXPECT_TRUE(run(tool + " --version") == 0 && out == tool + " " SELVANE_VERSION "\n") << out;
  for (const std::string command :
       {"selvane-update", "selvane-update install", "selvane-update check", "selvane-update config",
        "selvane-update status", "selvane-update mark-good", "selvane-pack", "selvane-pack sign",
        "selvane-pack manifest", "selvane-pack sign-manifest", "selvane-pack show"}) {
    EXPECT_EQ(run(command + " --help"), 0) << command << err;
    EXPECT_EQ(out.rfind("Usage: " + command + " [OPTIONS]", 0), 0u) << out;
  }
}

// Every usage error and every setting that cannot work exits before any network access (the
// manifest URL points at a closed port), with a message that names what is wrong.
TEST_F(Tools, BadSettingsAreRefusedBeforeAnyDownload) {
  harness::shell("mkdir " + dir / "keys");
  harness::writeFile(dir / "update.conf", "");
  harness::writeFile(dir / "bad.conf", "# comment\n\nkeys = keys\nretries = many\n");
  harness::writeFile(dir / "typo.conf", "manifest = x\nkeyz = /k\n");
  const std::string url = " --manifest https://127.0.0.1:1/manifest",
                    good = url + " --keys keys --cache c";
  const std::pair<std::string, std::string> cases[] = {
      {"selvane-update install --bogus", "The following argument was not expected: --bogus"},
      {update + "install --retries x" + good, "--retries: takes a whole number"},
      {update + "install --keys keys --cache c", "install needs --manifest"},
      {update + "install --cache c" + url, "install needs --keys"},
      {update + "check --cache c" + url, "check needs --keys"},
      {"selvane-update --config bad.conf install" + good,
       "configuration file bad.conf, line 4: retries takes a whole number"},
      {"selvane-update --config typo.conf check", "line 2: unknown setting 'keyz'"},
      {"selvane-update --config none check" + good, "cannot read the configuration file none"},
      {update + "install --cache c --keys none" + url, "the key directory none is not a directory"},
      {update + "install --credentials none" + good, "cannot read the credentials file none"},
      {update + "check --keys keys --cache update.conf" + url, "cannot use the cache directory"},
      {update + "check --allow-http --allow-unsigned-manifest" + good, "needs a signed manifest"},
      {update + "check --manifest-max-size 0" + good, "--manifest-max-size must be at least 1"},
      {update + "check --manifest none --keys keys --cache c", "manifest failed: there is no"},
      {"selvane-pack sign --key k", "PACKAGE is required"}};
  for (const auto& [arguments, message] : cases) {
    EXPECT_EQ(run(arguments), message.find("manifest failed") == 0 ? 3 : 2) << arguments;
    EXPECT_NE(err.find(message), std::string::npos) << arguments << "\n" << err;
    EXPECT_EQ(out, "") << arguments;
  }
}

TEST_F(Tools, TheCommandLineOverridesTheConfigurationFile) {
  harness::writeFile(dir / "update.conf",
                     "manifest = https://x.invalid/m\n  # retries = 9\nretries = 2\ntimeout=3\n");
  ASSERT_EQ(run(update + "--json config --timeout 45"), 0) << err;
  for (const std::string setting :
       {R"({"name":"manifest","value":"https://x.invalid/m","source":"update.conf:1"})",
        R"({"name":"cache","value":"/var/cache/selvane","source":"default"})",
        R"({"name":"retries","value":2,"source":"update.conf:3"})",
        R"({"name":"timeout","value":45,"source":"command line"})"})
    EXPECT_NE(out.find(setting), std::string::npos) << setting << "\n" << out;
  run(update + "config");
  EXPECT_NE(out.find("\nretries      = 2" + std::string(39, ' ') + "(update.conf:3)\n"),
            std::string::npos)
      << out;
}

TEST_F(Tools, BashCompletesSubcommandsAndOptionsFromTheToolsHelp) {
#ifdef SELVANE_CROSS_EMULATOR
  GTEST_SKIP() << "bash runs the tools natively";
#endif
  harness::shell("PATH=" + kBin + ":$PATH bash -c " +
                     quote(". " SELVANE_TEST_SOURCE_DIR "/../tools/completion/selvane.bash; for "
                           "line in 'selvane-update ins' 'selvane-pack s' 'selvane-pack sign --k'; "
                           "do COMP_WORDS=($line); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                           "_selvane_complete; echo \"${COMPREPLY[*]}\"; done"),
                 &out);
  EXPECT_EQ(out, "install\nsign sign-manifest show\n--key\n");
}

TEST_F(Tools, SystemdAcceptsTheUnits) {
  if (harness::shell("command -v systemd-analyze >/dev/null") != 0)
    GTEST_SKIP() << "systemd-analyze is missing";
  SELVANE_REQUIRE_ROOT();
  // The units start the installed selvane-update: put the built one there, in this namespace.
  harness::makeHostPathWritable(SELVANE_INSTALL_BINDIR);
  ASSERT_EQ(harness::shell("ln -sf " + kBin + "selvane-update " SELVANE_INSTALL_BINDIR "/"), 0);
  // With the man pages if they were built.
  EXPECT_EQ(harness::shell("cd " SELVANE_BINARY_DIR "/systemd && export MANPATH=" SELVANE_BINARY_DIR
                           "/man && u='selvane-mark-good.service selvane-update.service "
                           "selvane-update.timer' && if test -e $MANPATH/man8/selvane-update.8; "
                           "then systemd-analyze verify $u; else systemd-analyze verify --man=no "
                           "$u; fi 2>&1",
                           &out),
            0)
      << out;
  EXPECT_EQ(out, "");
}

}  // namespace
