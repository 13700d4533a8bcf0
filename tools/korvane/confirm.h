#pragma once

#include <string>

#include "tool.h"

namespace korvane_tool {

/// Before anything is sent: a usage error where nobody can be asked and `yes` doesn't say that
/// nobody need be.
void NeedConfirmable(bool yes);

/// Asks on the terminal whether to go on, unless `yes`. Throws a ToolError if not.
void Confirm(const std::string& question, bool yes);

}  // namespace korvane_tool
