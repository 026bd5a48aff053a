// The command lines of selvane-update and selvane-pack as their users meet them: help and
// versions, usage errors, the configuration file, checks made before any network access, bash
// completion and the systemd units. Nothing here needs a device.
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "Harness.h"

namespace {

using harness::quote;

const std::string kBin = SELVANE_BINARY_DIR "/bin/";

struct ToolRun {
  int status;
  std::string out, err;
};

class Tools : public ::testing::Test {
 protected:
  ToolRun run(const std::string& arguments) {
    ToolRun result;
    result.status =
        harness::shell(SELVANE_TOOL_PREFIX + kBin + arguments + " 2>" + quote(errors), &result.out);
    result.err = harness::readFile(errors);
    return result;
  }
  // selvane-update with a configuration file and a cache of this test's own.
  std::string update(const std::string& arguments) {
    return "selvane-update --config " + quote(config) + " " + arguments;
  }

  harness::ScratchDir dir;
  const std::string errors = dir / "stderr", config = dir / "update.conf", keys = dir / "keys";
};

TEST_F(Tools, EverySubcommandHasItsHelpAndBothToolsTellTheirVersion) {
  const std::pair<const char*, const char*> cases[] = {
      {"selvane-update --help", "Usage: selvane-update [OPTIONS] SUBCOMMAND"},
      {"selvane-update install --help", "Usage: selvane-update install [OPTIONS]"},
      {"selvane-update check --help", "Usage: selvane-update check [OPTIONS]"},
      {"selvane-update config --help", "Usage: selvane-update config [OPTIONS]"},
      {"selvane-update status --help", "Usage: selvane-update status [OPTIONS]"},
      {"selvane-update mark-good --help", "Usage: selvane-update mark-good [OPTIONS]"},
      {"selvane-update --version", "selvane-update " SELVANE_VERSION},
      {"selvane-pack --help", "Usage: selvane-pack [OPTIONS] SUBCOMMAND"},
      {"selvane-pack sign --help", "Usage: selvane-pack sign [OPTIONS] PACKAGE"},
      {"selvane-pack manifest --help", "Usage: selvane-pack manifest [OPTIONS] [PACKAGE...]"},
      {"selvane-pack sign-manifest --help", "Usage: selvane-pack sign-manifest [OPTIONS] MANIFEST"},
      {"selvane-pack show --help", "Usage: selvane-pack show [OPTIONS] MANIFEST"},
      {"selvane-pack --version", "selvane-pack " SELVANE_VERSION},
  };
  for (const auto& [arguments, firstLine] : cases) {
    const ToolRun result = run(arguments);
    EXPECT_EQ(result.status, 0) << arguments << result.err;
    EXPECT_EQ(result.out.substr(0, result.out.find('\n')), firstLine) << arguments;
  }
}

// Every usage error and every setting that cannot work exits before any network access (the
// manifest URL points at a closed port), with a message that names what is wrong.
TEST_F(Tools, BadSettingsAreRefusedBeforeAnyDownload) {
  harness::shell("mkdir " + quote(keys));
  harness::writeFile(dir / "bad.conf", "# comment\n\nkeys = " + keys + "\nretries = many\n");
  harness::writeFile(dir / "typo.conf", "manifest = x\nkeyz = /k\n");
  const std::string url = "https://127.0.0.1:1/manifest", cache = " --cache " + dir / "cache";
  const std::string good = " --manifest " + url + " --keys " + keys + cache;
  const struct {
    std::string arguments;
    int status;
    std::string message;
  } cases[] = {
      {"selvane-update", 2, "A subcommand is required"},
      {"selvane-update frobnicate", 2, "unknown subcommand 'frobnicate'"},
      {"selvane-update install --bogus", 2, "The following argument was not expected: --bogus"},
      {update("install --retries x" + good), 2, "--retries: takes a whole number"},
      {update("install" + cache + " --keys " + keys), 2, "install needs --manifest"},
      {update("install --manifest " + url + cache), 2, "install needs --keys"},
      {"selvane-update --config " + dir / "bad.conf" + " install" + good, 2,
       "configuration file " + dir / "bad.conf" + ", line 4: retries takes a whole number"},
      {"selvane-update --config " + dir / "typo.conf" + " check", 2,
       "line 2: unknown setting 'keyz'"},
      {"selvane-update --config " + dir / "none" + " check" + good, 2,
       "cannot read the configuration file " + dir / "none"},
      {update("install --manifest " + url + cache + " --keys " + dir / "none"), 2,
       "the key directory " + dir / "none" + " is not a directory"},
      {update("install --credentials " + dir / "none" + good), 2,
       "cannot read the credentials file " + dir / "none"},
      {update("check --manifest " + url + " --keys " + keys + " --cache " + config), 2,
       "cannot use the cache directory"},
      {update("check --manifest " + url + cache), 2, "check needs --keys"},
      {update("check --allow-http --allow-unsigned-manifest" + good), 2,
       "--allow-http needs a signed manifest"},
      {update("check --manifest-max-size 0" + good), 2, "--manifest-max-size must be at least 1"},
      {update("check --manifest " + dir / "none" + " --keys " + keys + cache), 3,
       "no readable manifest file at"},
      {"selvane-pack", 2, "A subcommand is required"},
      {"selvane-pack --frob", 2, "unknown option '--frob'"},
      {"selvane-pack sign pkg", 2, "--key is required"},
      {"selvane-pack sign --key k", 2, "PACKAGE is required"},
      {"selvane-pack manifest --version 1 x", 2, "--base-url is required"},
      {"selvane-pack sign-manifest m", 2, "--key is required"},
      {"selvane-pack show a b", 2, "MANIFEST: At Most 1 required but received 2"},
      {"selvane-pack show --bogus m", 2, "The following argument was not expected: --bogus"},
  };
  harness::writeFile(config, "");
  for (const auto& c : cases) {
    const ToolRun result = run(c.arguments);
    EXPECT_EQ(result.status, c.status) << c.arguments << "\n" << result.err;
    EXPECT_NE(result.err.find(c.message), std::string::npos) << c.arguments << "\n" << result.err;
    EXPECT_EQ(result.out, "") << c.arguments;
  }
}

TEST_F(Tools, TheCommandLineOverridesTheConfigurationFile) {
  harness::writeFile(config,
                     "manifest = https://example.invalid/m\n  # retries = 9\n"
                     "retries = 2\ntimeout=30\n");
  const ToolRun result = run(update("--json config --timeout 45"));
  ASSERT_EQ(result.status, 0) << result.err;
  const nlohmann::json event = nlohmann::json::parse(result.out);
  EXPECT_EQ(event["event"], "config");
  std::map<std::string, std::pair<nlohmann::json, std::string>> settings;
  for (const nlohmann::json& setting : event["settings"])
    settings[setting["name"]] = {setting["value"], setting["source"]};
  EXPECT_EQ(settings["manifest"].first, "https://example.invalid/m");
  EXPECT_EQ(settings["manifest"].second, config + ":1");
  EXPECT_EQ(settings["retries"].first, 2);
  EXPECT_EQ(settings["retries"].second, config + ":3");
  EXPECT_EQ(settings["timeout"].first, 45);
  EXPECT_EQ(settings["timeout"].second, "command line");
  EXPECT_EQ(settings["cache"].first, "/var/cache/selvane");
  EXPECT_EQ(settings["cache"].second, "default");
  EXPECT_NE(run(update("config"))
                .out.find("\nretries      = 2" + std::string(39, ' ') + "(" + config + ":3)\n"),
            std::string::npos);
}

TEST_F(Tools, BashCompletesSubcommandsAndOptionsFromTheToolsHelp) {
#ifdef SELVANE_CROSS_EMULATOR
  GTEST_SKIP() << "bash runs the tools natively";
#endif
  const std::pair<const char*, const char*> cases[] = {
      {"selvane-update ins", "install"},
      {"selvane-update --js", "--json"},
      {"selvane-update install --ma", "--manifest --manifest-max-size"},
      {"selvane-update install --hook", "--hook-timeout --hooks"},
      {"selvane-pack s", "sign sign-manifest show"},
      {"selvane-pack sign --k", "--key"},
  };
  for (const auto& [line, expected] : cases) {
    std::string out;
    harness::shell("PATH=" + kBin + ":$PATH bash -c " +
                       quote(". " SELVANE_TEST_SOURCE_DIR "/../tools/completion/selvane.bash; "
                             "COMP_WORDS=(" +
                             std::string(line) +
                             "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                             "_selvane_complete; echo \"${COMPREPLY[*]}\""),
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
