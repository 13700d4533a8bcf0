#pragma once

#include <string>
#include <vector>

namespace korvane_tool {

/// What a program did.
struct ChildResult {
  bool succeeded = false;  ///< It ended by itself, in time, with the status 0.
  std::string output;      ///< What it wrote to its standard output.
};

/// Runs a program without a shell, and without input; what it writes to its standard error stream
/// is lost. It is looked for in PATH and where administrators' programs are. One that takes longer
/// than ten seconds, or writes more than a megabyte, is ended.
ChildResult RunChild(std::vector<std::string> arguments);

}  // namespace korvane_tool
