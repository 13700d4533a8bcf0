#include "commands.h"

namespace korvane_tool {

const std::vector<CommandRow>& AllCommands() {
  static const std::vector<CommandRow> rows{
      {"find", "List the hands that are there, on every link", &MakeFind},
      {"info", "Tell what a hand is and how it is", &MakeInfo},
      {"sim", "Start simulated hands, by korvane-sim", &MakeSim, false},
      {"completion", "Print the completion of a shell", &MakeCompletion, false},
  };
  return rows;
}

}  // namespace korvane_tool
