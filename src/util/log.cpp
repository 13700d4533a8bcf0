#include "util/log.h"

#include <iostream>

namespace talvera::korvane {
namespace {

void WriteLine(std::ostream& stream, const std::string& line) {
  const std::string text = line + "\n";
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.flush();
}

}  // namespace

void LogError(const std::string& line) { WriteLine(std::cerr, line); }

void LogInfo(const std::string& line) { WriteLine(std::cout, line); }

}  // namespace talvera::korvane
