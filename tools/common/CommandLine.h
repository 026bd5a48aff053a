// What selvane's command-line tools share about their arguments (parsed with CLI11): help that
// starts with the usage line, --version with the project's version, and usage errors that name
// the option and exit with 2.
#ifndef SELVANE_TOOLS_COMMAND_LINE_H
#define SELVANE_TOOLS_COMMAND_LINE_H

#include <CLI/CLI.hpp>
#include <memory>
#include <string>
#include <vector>

namespace tools {

// Help text as "Usage: ...", the description, then the options and subcommands.
class UsageFirst : public CLI::Formatter {
 public:
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    if (mode == CLI::AppFormatMode::Sub) return make_expanded(app);
    return make_usage(app, name) + make_description(app) + make_positionals(app) +
           make_groups(app, mode) + make_subcommands(app, mode) + "\n" + make_footer(app);
  }
};

// The tool's application: --help on it and on every subcommand, and --version.
inline void setUp(CLI::App& app) {
  app.formatter(std::make_shared<UsageFirst>());
  app.set_version_flag("--version", app.get_name() + " " SELVANE_VERSION,
                       "Print the version and exit");
  app.require_subcommand(1);
}

// What a failed parse tells the user: CLI11's message, which names the option, or the word that
// is no subcommand.
inline std::string usageProblem(const CLI::App& app, const CLI::ParseError& error) {
  const std::vector<std::string> left = app.remaining();
  if (!app.get_subcommands().empty() || left.empty()) return error.what();
  return std::string(left[0][0] == '-' ? "unknown option '" : "unknown subcommand '") + left[0] +
         "'";
}

}  // namespace tools

#endif
