#pragma once

#include <memory>
#include <vector>

#include "options.h"

namespace korvane_tool {

class Tool;

/// One command. It is made before the command line is read, and adds its options to that; it runs
/// afterwards, if it was named.
class Command {
 public:
  Command() = default;
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  virtual ~Command() = default;

  /// Does it. Returns the exit status, or throws ToolError.
  virtual int Run(Tool& tool) = 0;
};

/// A row of the table of commands.
struct CommandRow {
  const char* name;
  const char* summary;
  std::unique_ptr<Command> (*make)(Options options);
  bool takes_common_options = true;  ///< As all do that have to do with hands.
};

/// The commands in the order of the help.
const std::vector<CommandRow>& AllCommands();

}  // namespace korvane_tool
