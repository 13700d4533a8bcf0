// korvane: the tool for Korvane hands. Each command is a row of AllCommands and a file of its own.

#include <korvane_version.h>

#include <exception>
#include <memory>
#include <string>
#include <vector>

#include "command.h"
#include "common/standard_streams.h"
#include "interrupt.h"
#include "output_file.h"
#include "tool.h"

namespace {

using namespace korvane_tool;  // the tool is all that this file is about

constexpr const char* kName = "korvane";
constexpr const char* kFooter = R"(
Exit status:
  0 done   1 the hand refused or failed   2 usage   3 no link   4 nobody answers
  5 another model answers   6 several hands answer   130 interrupted

Examples:
  korvane find
  korvane info -H can0:tessel:2
  KORVANE_HAND=serial:/dev/ttyUSB0 korvane watch
`korvane COMMAND --help` tells more about one.)";

struct Made {
  Options options;
  std::unique_ptr<Command> command;
};

std::vector<Made> MakeCommands(Options root, Tool& tool) {
  std::vector<Made> commands;
  for (const CommandRow& row : AllCommands()) {
    Options options = root.AddCommand(row.name, row.summary);
    commands.push_back({options, row.make(options)});
    if (!row.takes_common_options) continue;
    const auto nested = options.Commands();
    if (nested.empty()) AddCommonOptions(options, tool.options);
    for (const Options& leaf : nested) AddCommonOptions(leaf, tool.options);
  }
  return commands;
}

int Run(Command& command, Tool& tool) {
  try {
    tool.Begin();
    return WriteTheRest(kName, command.Run(tool));
  } catch (const NobodyReads&) {
    return kDone;
  } catch (const ToolError& error) {
    return tool.Report(error);
  } catch (const std::exception& error) {
    return tool.Report(ToolError(kFailed, error.what()));
  }
}

}  // namespace

int main(int argc, char** argv) {
  PrepareStandardStreams();
  Interrupt::EndAtOnce();
  Tool tool;
  CommandLine line(kName,
                   "The tool for Korvane hands: find, look, move, update, set up, record, measure.",
                   KORVANE_VERSION);
  const auto commands = MakeCommands(line.Root(), tool);
  line.Root().Footer(kFooter);
  if (const auto is_right = line.Read(argc, argv))
    return WriteTheRest(kName, *is_right ? kDone : kUsage);
  for (const Made& made : commands) {
    if (made.options.IsNamed()) return Run(*made.command, tool);
  }
  return kUsage;
}
