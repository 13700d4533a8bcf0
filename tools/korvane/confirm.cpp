#include "confirm.h"

#include <unistd.h>

#include <iostream>
#include <string>

#include "common/standard_streams.h"

namespace korvane_tool {

void NeedConfirmable(bool yes) {
  if (yes || isatty(STDIN_FILENO) == 1) return;
  throw ToolError(kUsage, "there is no terminal to ask on: --yes goes ahead without asking");
}

void Confirm(const std::string& question, bool yes) {
  if (yes) return;
  // The standard output may be a document.
  korvane_common::WriteToStderr(question + " [y/N] ");
  std::string answer;
  std::getline(std::cin, answer);
  if (answer == "y" || answer == "Y" || answer == "yes") return;
  throw ToolError(kInterrupted, "not confirmed: nothing was changed");
}

}  // namespace korvane_tool
