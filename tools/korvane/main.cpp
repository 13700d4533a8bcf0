// korvane: the tool for Korvane hands. Each command is a row of AllCommands and a file of its own.

#include <fmt/format.h>
#include <korvane_version.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "interrupt.h"
#include "tool.h"

namespace {

using namespace korvane_tool;  // the tool is all that this file is about

constexpr const char* kFooter = R"(
Exit status:
  0 done   1 the hand refused or failed   2 usage   3 no link   4 nobody answers
  5 another model answers   6 several hands answer   130 interrupted

Examples:
  korvane find
  korvane info -H can0:tessel:2
  KORVANE_HAND=serial:/dev/ttyUSB0 korvane watch
`korvane COMMAND --help` tells more about one.)";

/// Help of all commands that tells the options of nested ones, too.
class WholeHelp : public CLI::Formatter {
 public:
  // NOLINTNEXTLINE(readability-identifier-naming): named so there
  std::string make_expanded(const CLI::App* command) const override {
    std::string text = Formatter::make_expanded(command);
    const CLI::App* const outer = command->get_parent();
    if (outer->get_parent() != nullptr) text = outer->get_name() + " " + text;
    for (const CLI::App* const nested :
         command->get_subcommands([](const CLI::App*) { return true; })) {
      text += "\n" + make_expanded(nested);
    }
    return text;
  }
};

struct Made {
  CLI::App* app;
  std::unique_ptr<Command> command;
};

std::vector<Made> MakeCommands(CLI::App& app, Tool& tool) {
  std::vector<Made> commands;
  for (const CommandRow& row : AllCommands()) {
    CLI::App* const sub = app.add_subcommand(row.name, row.summary);
    commands.push_back({sub, row.make(*sub)});
    if (!row.takes_common_options) continue;
    const auto nested = sub->get_subcommands([](CLI::App*) { return true; });
    if (nested.empty()) AddCommonOptions(*sub, tool.options);
    for (CLI::App* const leaf : nested) AddCommonOptions(*leaf, tool.options);
  }
  return commands;
}

int Run(Command& command, Tool& tool) {
  try {
    tool.Begin();
    return command.Run(tool);
  } catch (const ToolError& error) {
    return tool.Report(error);
  } catch (const std::exception& error) {
    return tool.Report(ToolError(kFailed, error.what()));
  }
}

/// A full disk shows only when the last bytes are written.
int WriteTheRest(int status) {
  const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  if (written || status != kDone) return status;
  fmt::print(stderr, "korvane: the output can't be written: {}\n", std::strerror(errno));
  return kFailed;
}

}  // namespace

int main(int argc, char** argv) {
  Interrupt::EndAtOnce();
  Tool tool;
  CLI::App app("The tool for Korvane hands: find, look, move, update, set up, record, measure.",
               "korvane");
  app.set_version_flag("--version", "korvane " KORVANE_VERSION);
  app.set_help_all_flag("--help-all", "Print the help of all commands and exit");
  app.formatter(std::make_shared<WholeHelp>());
  app.require_subcommand(1);
  const auto commands = MakeCommands(app, tool);
  app.footer(kFooter);  // behind them, as they would inherit it
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return WriteTheRest(app.exit(error) == 0 ? kDone : kUsage);
  }
  for (const Made& made : commands) {
    if (made.app->parsed()) return WriteTheRest(Run(*made.command, tool));
  }
  return kUsage;
}
