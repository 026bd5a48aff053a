// selvane-update: the update client. It takes a device from one release to the next through the
// library's public API, in the order the library expects its caller to keep:
//
//   selvane-update [--json] [--log] install --manifest FILE|URL --keys DIR [--credentials FILE]
//                                   [--retries N] [--cache DIR] [--timeout SECONDS] [TRUST...]
//   selvane-update [--json] [--log] check --manifest FILE|URL --keys DIR [--credentials FILE]
//                                   [--cache DIR] [TRUST...]
//   TRUST: --allow-unsigned-manifest --allow-http --allow-downgrade --manifest-max-size BYTES
//   selvane-update [--json] [--log] status
//   selvane-update [--json] [--log] mark-good
//
// Exit codes: see Failure.h and README.md.
#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Failure.h"
#include "Output.h"
#include "Updater.h"

namespace {

const char kUsage[] =
    "usage: selvane-update [--json] [--log] COMMAND [OPTIONS]\n"
    "  install   --manifest FILE|URL --keys DIR [--credentials FILE] [--retries N]\n"
    "            [--cache DIR] [--timeout SECONDS] [--allow-downgrade]\n"
    "            install the release into the other root filesystem and boot it next\n"
    "  check     --manifest FILE|URL --keys DIR [--credentials FILE] [--cache DIR]\n"
    "            show what install would do, changing nothing\n"
    "  both take [--manifest-max-size BYTES] (default 16 MiB) [--allow-unsigned-manifest]\n"
    "            [--retries-download N] (default 3) [--stall-timeout SECONDS] (default 300)\n"
    "            [--allow-http] (plain http too; not with --allow-unsigned-manifest)\n"
    "  status    show both root filesystems, the boot properties and the releases\n"
    "  mark-good mark the running root filesystem known good\n"
    "  --json    one JSON object per event on standard output\n"
    "  --log     echo the library's syslog lines on standard error\n";

uint64_t number(const std::string& option, const std::string& text, uint64_t limit = 1000000) {
  char* end = nullptr;
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), &end, 10);
  if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value > limit) {
    throw update::Failure(update::Exit::Usage,
                          option + " takes a whole number, not '" + text + "'");
  }
  return value;
}

struct Command {
  std::string name;
  update::Options options;
  bool json = false;
  bool log = false;
};

Command parse(int argc, char** argv) {
  Command command;
  std::map<std::string, std::function<void(const std::string&)>> valued = {
      {"--manifest", [&](const std::string& v) { command.options.manifest = v; }},
      {"--keys", [&](const std::string& v) { command.options.keys = v; }},
      {"--credentials", [&](const std::string& v) { command.options.credentials = v; }},
      {"--cache", [&](const std::string& v) { command.options.cache = v; }},
      {"--retries",
       [&](const std::string& v) {
         command.options.retries = static_cast<unsigned>(number("--retries", v));
       }},
      {"--manifest-max-size",
       [&](const std::string& v) {
         command.options.manifestMaxSize = number("--manifest-max-size", v, UINT64_MAX);
         if (command.options.manifestMaxSize == 0)
           throw update::Failure(update::Exit::Usage, "--manifest-max-size must be at least 1");
       }},
      {"--retries-download",
       [&](const std::string& v) {
         command.options.downloadRetries =
             static_cast<unsigned>(number("--retries-download", v, 100));
       }},
      {"--stall-timeout",
       [&](const std::string& v) {
         command.options.stallTimeout = static_cast<unsigned>(number("--stall-timeout", v));
         if (command.options.stallTimeout == 0)
           throw update::Failure(update::Exit::Usage, "--stall-timeout must be at least 1");
       }},
      {"--timeout",
       [&](const std::string& v) {
         command.options.timeout = static_cast<int>(number("--timeout", v));
       }},
  };
  const std::map<std::string, bool*> switches = {
      {"--allow-unsigned-manifest", &command.options.allowUnsignedManifest},
      {"--allow-http", &command.options.allowHttp},
      {"--allow-downgrade", &command.options.allowDowngrade},
  };
  for (int i = 1; i < argc; ++i) {
    const std::string word = argv[i];
    if (switches.count(word)) {
      *switches.at(word) = true;
    } else if (word == "--json") {
      command.json = true;
    } else if (word == "--log") {
      command.log = true;
    } else if (word == "--help" || word == "-h") {
      std::fputs(kUsage, stdout);
      std::exit(0);
    } else if (valued.count(word)) {
      if (i + 1 >= argc) throw update::Failure(update::Exit::Usage, word + " needs a value");
      valued[word](argv[++i]);
    } else if (word[0] != '-' && command.name.empty()) {
      command.name = word;
    } else {
      throw update::Failure(update::Exit::Usage, "unknown argument '" + word + "'");
    }
  }
  const bool needsManifest = command.name == "install" || command.name == "check";
  if (command.name.empty()) throw update::Failure(update::Exit::Usage, "no command given");
  if (!needsManifest && command.name != "status" && command.name != "mark-good")
    throw update::Failure(update::Exit::Usage, "unknown command '" + command.name + "'");
  if (needsManifest && command.options.manifest.empty())
    throw update::Failure(update::Exit::Usage, command.name + " needs --manifest");
  if (needsManifest && command.options.keys.empty())
    throw update::Failure(update::Exit::Usage, command.name + " needs --keys");
  if (command.options.allowHttp && command.options.allowUnsignedManifest)
    throw update::Failure(
        update::Exit::Usage,
        "--allow-http needs a signed manifest: not with --allow-unsigned-manifest");
  return command;
}

}  // namespace

int main(int argc, char** argv) {
  const bool json = [&] {
    for (int i = 1; i < argc; ++i)
      if (std::string(argv[i]) == "--json") return true;
    return false;
  }();
  update::Output out(json);
  try {
    const Command command = parse(argc, argv);
    openlog("selvane-update", command.log ? LOG_PERROR | LOG_PID : LOG_PID, LOG_DAEMON);
    update::installSignalHandlers();
    update::Updater updater(command.options, out);
    if (command.name == "install") updater.install();
    if (command.name == "check") updater.check();
    if (command.name == "status") updater.status();
    if (command.name == "mark-good") updater.markGood();
    return 0;
  } catch (const update::Failure& failure) {
    out.fail(failure);
    if (failure.code == update::Exit::Usage && !json) std::fputs(kUsage, stderr);
    return static_cast<int>(failure.code);
  } catch (const std::exception& e) {
    out.fail(update::Failure(update::Exit::Internal, e.what()));
    return static_cast<int>(update::Exit::Internal);
  } catch (...) {
    out.fail(update::Failure(update::Exit::Internal, "unexpected error"));
    return static_cast<int>(update::Exit::Internal);
  }
}
