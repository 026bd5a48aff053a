// selvane-update: the update client. It takes a device from one release to the next through the
// library's public API, in the order the library expects its caller to keep:
//
//   selvane-update [--json] [--log] [--config FILE] install|check [OPTIONS]
//   selvane-update [--json] [--log] [--config FILE] config [OPTIONS]
//   selvane-update [--json] [--log] status|mark-good
//
// The options of install and check (Settings.cpp) may also come from the configuration file.
// Exit codes: see Failure.h and README.md.
#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>

#include "../common/CommandLine.h"
#include "Failure.h"
#include "Hooks.h"
#include "Output.h"
#include "Preflight.h"
#include "Settings.h"
#include "Updater.h"

namespace {

struct Subcommand {
  const char* name;
  const char* description;
  unsigned settings;  // the settings it takes (Settings.h)
};

const Subcommand kSubcommands[] = {
    {"install", "Install the release into the other root filesystem and boot it next.",
     update::kInstall},
    {"check", "Show what install would do (remove, download, install), changing nothing.",
     update::kCheck},
    {"config", "Print the settings of install and check in effect, and where each came from.",
     update::kInstall | update::kCheck},
    {"status", "Show both root filesystems, the boot properties and the releases.", 0},
    {"mark-good", "Mark the running root filesystem known good.", 0},
};

const char kFooter[] =
    "Exit codes: 0 success, 1 internal, 2 usage, 3 manifest, 4 download, 5 size, 6 digest,\n"
    "7 signature, 8 mount, 9 install, 10 configure, 11 verify, 12 sanity check, 13 boot switch,\n"
    "14 already running, 15 interrupted, 16 unsafe target root, 17 downgrade, 18 pre-install "
    "hook,\n"
    "19 not enough space.";

bool wantsJson(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strcmp(argv[i], "--json") == 0) return true;
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Installs releases into the other root filesystem of an A/B device.",
               "selvane-update");
  tools::setUp(app);
  app.fallthrough();
  bool json = false, log = false;
  std::string configFile = update::kDefaultConfigFile;
  app.add_flag("--json", json, "JSON Lines on standard output, one object per event");
  app.add_flag("--log", log, "echo the library's syslog lines on standard error");
  const CLI::Option* configOption =
      app.add_option("--config", configFile, "the configuration file of install and check")
          ->type_name("FILE")
          ->default_str(update::kDefaultConfigFile);
  std::list<update::Settings> settings;  // in the order of kSubcommands
  for (const Subcommand& subcommand : kSubcommands)
    settings.emplace_back(*app.add_subcommand(subcommand.name, subcommand.description),
                          subcommand.settings);
  app.footer(kFooter);  // after the subcommands, which would take it over otherwise

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    update::Output(wantsJson(argc, argv))
        .fail(update::Failure(update::Exit::Usage, tools::usageProblem(app, error)));
    return static_cast<int>(update::Exit::Usage);
  }

  update::Output out(json);
  std::unique_ptr<update::Hooks> hooks;  // install only
  const auto finish = [&](const update::Failure& failure) {
    out.fail(failure);
    try {
      if (hooks && failure.code != update::Exit::Usage &&
          failure.code != update::Exit::AlreadyRunning)
        hooks->failed(failure);
    } catch (const std::exception& e) {
      std::fprintf(stderr, "selvane-update: the on-failure hooks did not run: %s\n", e.what());
    }
    return static_cast<int>(failure.code);
  };
  try {
    openlog("selvane-update", log ? LOG_PERROR | LOG_PID : LOG_PID, LOG_DAEMON);
    update::installSignalHandlers();
    const std::string command = app.get_subcommands().front()->get_name();
    auto chosen = settings.begin();
    for (const Subcommand& subcommand : kSubcommands) {
      if (command == subcommand.name) break;
      ++chosen;
    }
    update::Options options;
    if (command == "install" || command == "check" || command == "config")
      options = chosen->resolve(configFile, configOption->count() > 0);
    if (command == "config") {
      out.emit(chosen->event(), chosen->text());
      return 0;
    }
    if (command == "install" || command == "check") {
      if (options.manifest.empty())
        throw update::Failure(update::Exit::Usage,
                              command + " needs --manifest (or manifest = in " + configFile + ")");
      if (options.keys.empty())
        throw update::Failure(update::Exit::Usage,
                              command + " needs --keys (or keys = in " + configFile + ")");
      if (options.manifestMaxSize == 0)
        throw update::Failure(update::Exit::Usage, "--manifest-max-size must be at least 1");
      if (options.stallTimeout == 0)
        throw update::Failure(update::Exit::Usage, "--stall-timeout must be at least 1");
      if (options.allowHttp && options.allowUnsignedManifest)
        throw update::Failure(
            update::Exit::Usage,
            "--allow-http needs a signed manifest: not with --allow-unsigned-manifest");
      update::checkLocations(options);
    }
    update::Updater updater(options, out);
    if (command == "install") {
      hooks = std::make_unique<update::Hooks>(options, out);
      updater.install(*hooks);
    }
    if (command == "check") updater.check();
    if (command == "status") updater.status();
    if (command == "mark-good") updater.markGood();
    return 0;
  } catch (const update::Failure& failure) {
    return finish(failure);
  } catch (const std::exception& e) {
    return finish(update::Failure(update::Exit::Internal, e.what()));
  } catch (...) {
    return finish(update::Failure(update::Exit::Internal, "unexpected error"));
  }
}
