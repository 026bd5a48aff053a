// The settings of install and check, declared once in one table: the subcommands' command-line
// options, the keys of the configuration file (/etc/selvane/update.conf) and the lines of
// `selvane-update config` all come from it. Adding a setting is one line there.
//
// The configuration file holds lines "NAME = VALUE" (NAME as the long option, without "--"; a
// flag takes true or false), blank lines and "#" comments. The command line overrides it.
#ifndef SELVANE_UPDATE_SETTINGS_H
#define SELVANE_UPDATE_SETTINGS_H

#include <map>
#include <string>
#include <vector>

#include "Output.h"
#include "Updater.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace update {

// Which subcommands use a setting.
enum Command : unsigned { kInstall = 1, kCheck = 2 };

extern const char kDefaultConfigFile[];

class Settings {
 public:
  // Declares the settings that the given commands use as options of the subcommand.
  Settings(CLI::App& subcommand, unsigned commands);
  Settings(const Settings&) = delete;  // the declared options point into it
  Settings& operator=(const Settings&) = delete;

  // After parsing: reads the configuration file and puts the command line over it. A missing file
  // is fine unless mustExist; a malformed one throws Failure(Usage) naming its line.
  Options resolve(const std::string& configFile, bool mustExist);

  // The settings in effect and where each came from, after resolve().
  Event event() const;
  std::string text() const;

 private:
  struct Resolved {
    std::string name;
    Json value;
    std::string source;  // "command line", "default" or FILE:LINE
  };
  unsigned commands;
  std::map<std::string, std::string> given;  // values from the command line
  std::map<std::string, CLI::Option*> declared;
  std::vector<Resolved> resolved;
  std::string file;
};

}  // namespace update

#endif
