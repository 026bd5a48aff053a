#include "Settings.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <variant>

#include "Failure.h"

namespace update {

const char kDefaultConfigFile[] = "/etc/selvane/update.conf";

namespace {

// Counts and seconds are int or unsigned, up to a million; sizes in bytes are uint64_t.
using Field = std::variant<std::string Options::*, unsigned Options::*, int Options::*,
                           std::uint64_t Options::*, bool Options::*>;

struct Setting {
  const char* name;   // --NAME on the command line, NAME = VALUE in the configuration file
  const char* value;  // what the value is, for --help; "" for a flag
  const char* help;
  unsigned commands;
  Field field;
};

// Every setting of install and check.
const Setting kSettings[] = {
    {"manifest", "FILE|URL", "the release manifest: a file, or an http(s) URL to download",
     kInstall | kCheck, &Options::manifest},
    {"keys", "DIR", "directory of trusted PEM public keys (required)", kInstall | kCheck,
     &Options::keys},
    {"credentials", "FILE", "storage credentials: sign every download for a private bucket",
     kInstall | kCheck, &Options::credentials},
    {"cache", "DIR", "where checked packages and the manifest are kept", kInstall | kCheck,
     &Options::cache},
    {"retries", "N", "boot attempts given to the new root", kInstall, &Options::retries},
    {"timeout", "SECONDS", "time limit of each package command (0: none)", kInstall,
     &Options::timeout},
    {"manifest-max-size", "BYTES", "largest manifest, and largest signature, accepted",
     kInstall | kCheck, &Options::manifestMaxSize},
    {"retries-download", "N", "further tries of a download that failed transiently",
     kInstall | kCheck, &Options::downloadRetries},
    {"stall-timeout", "SECONDS", "a transfer that receives nothing for this long has stalled",
     kInstall | kCheck, &Options::stallTimeout},
    {"allow-unsigned-manifest", "", "accept a manifest without a valid signature",
     kInstall | kCheck, &Options::allowUnsignedManifest},
    {"allow-http", "", "allow plain http besides https (only with a signed manifest)",
     kInstall | kCheck, &Options::allowHttp},
    {"allow-downgrade", "", "install a release older than the running root's", kInstall | kCheck,
     &Options::allowDowngrade},
    {"hooks", "DIR", "directory of the pre-install.d, post-install.d and on-failure.d hooks",
     kInstall, &Options::hooks},
    {"hook-timeout", "SECONDS", "time limit of each hook (0: none)", kInstall,
     &Options::hookTimeout},
};

bool isFlag(const Setting& setting) {
  return std::holds_alternative<bool Options::*>(setting.field);
}

// The largest value of a number setting, or 0 for other settings.
std::uint64_t largest(const Setting& setting) {
  if (std::holds_alternative<std::uint64_t Options::*>(setting.field)) return 1ULL << 60;
  const bool number = std::holds_alternative<unsigned Options::*>(setting.field) ||
                      std::holds_alternative<int Options::*>(setting.field);
  return number ? 1000000 : 0;
}

const Setting* find(const std::string& name) {
  for (const Setting& setting : kSettings)
    if (name == setting.name) return &setting;
  return nullptr;
}

// Why text is no value for the setting, or "".
std::string invalid(const Setting& setting, const std::string& text) {
  if (const std::uint64_t limit = largest(setting)) {
    const bool digits = !text.empty() && text.size() <= 19 &&
                        text.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || std::stoull(text) > limit)
      return "takes a whole number up to " + std::to_string(limit) + ", not '" + text + "'";
  } else if (isFlag(setting)) {
    if (text != "true" && text != "false") return "takes true or false, not '" + text + "'";
  } else if (text.empty()) {
    return "needs a value";
  }
  return "";
}

void assign(Options& options, const Setting& setting, const std::string& text) {
  std::visit(
      [&](auto member) {
        using Value = std::remove_reference_t<decltype(options.*member)>;
        if constexpr (std::is_same_v<Value, std::string>) {
          options.*member = text;
        } else if constexpr (std::is_same_v<Value, bool>) {
          options.*member = text == "true";
        } else {
          options.*member = static_cast<Value>(std::stoull(text));
        }
      },
      setting.field);
}

Json valueOf(const Options& options, const Setting& setting) {
  return std::visit([&](auto member) { return Json(options.*member); }, setting.field);
}

std::string trim(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

struct FileValue {
  std::string text;
  unsigned line;
};

std::map<std::string, FileValue> readConfigFile(const std::string& path, bool mustExist) {
  std::map<std::string, FileValue> values;
  if (!mustExist && access(path.c_str(), F_OK) != 0 && errno == ENOENT) return values;
  std::ifstream in(path);
  if (!in)
    throw Failure(Exit::Usage,
                  "cannot read the configuration file " + path + ": " + std::strerror(errno));
  std::string line;
  for (unsigned number = 1; std::getline(in, line); ++number) {
    const auto refuse = [&](const std::string& problem) {
      throw Failure(Exit::Usage, "configuration file " + path + ", line " + std::to_string(number) +
                                     ": " + problem);
    };
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    const size_t equals = line.find('=');
    if (equals == std::string::npos) refuse("expected NAME = VALUE, not '" + line + "'");
    const std::string name = trim(line.substr(0, equals)), text = trim(line.substr(equals + 1));
    const Setting* setting = find(name);
    if (setting == nullptr) refuse("unknown setting '" + name + "'");
    if (values.count(name))
      refuse(name + " is set twice (also on line " + std::to_string(values[name].line) + ")");
    const std::string problem = invalid(*setting, text);
    if (!problem.empty()) refuse(name + " " + problem);
    values[name] = {text, number};
  }
  return values;
}

}  // namespace

Settings::Settings(CLI::App& subcommand, unsigned commands) : commands(commands) {
  for (const Setting& setting : kSettings) {
    if ((setting.commands & commands) == 0) continue;
    const std::string option = std::string("--") + setting.name;
    if (isFlag(setting)) {
      declared[setting.name] = subcommand.add_flag(option, setting.help);
      continue;
    }
    CLI::Validator check(
        [&setting](std::string& text) {
          const std::string problem = invalid(setting, text);
          return problem;
        },
        "");
    const Json fallback = valueOf(Options(), setting);
    declared[setting.name] =
        subcommand.add_option(option, given[setting.name], setting.help)
            ->type_name(setting.value)
            ->default_str(fallback.is_string() ? fallback.get<std::string>() : fallback.dump())
            ->check(check);
  }
}

Options Settings::resolve(const std::string& configFile, bool mustExist) {
  file = configFile;
  const std::map<std::string, FileValue> fromFile = readConfigFile(configFile, mustExist);
  Options options;
  resolved.clear();
  for (const Setting& setting : kSettings) {
    if ((setting.commands & commands) == 0) continue;
    std::string source = "default";
    const auto inFile = fromFile.find(setting.name);
    if (declared.at(setting.name)->count() > 0) {
      assign(options, setting, isFlag(setting) ? "true" : given[setting.name]);
      source = "command line";
    } else if (inFile != fromFile.end()) {
      assign(options, setting, inFile->second.text);
      source = configFile + ":" + std::to_string(inFile->second.line);
    }
    resolved.push_back({setting.name, valueOf(options, setting), source});
  }
  return options;
}

Event Settings::event() const {
  Json settings = Json::array();
  for (const Resolved& setting : resolved)
    settings.push_back(
        {{"name", setting.name}, {"value", setting.value}, {"source", setting.source}});
  return Event("config").add("file", file).add("settings", settings);
}

std::string Settings::text() const {
  std::string text = "configuration file " + file;
  for (const Resolved& setting : resolved) {
    const std::string value =
        setting.value.is_string() ? setting.value.get<std::string>() : setting.value.dump();
    text += "\n" + setting.name + std::string(13 - std::min<size_t>(setting.name.size(), 12), ' ') +
            "= " + value + std::string(40 - std::min<size_t>(value.size(), 38), ' ') + "(" +
            setting.source + ")";
  }
  return text;
}

}  // namespace update
