#include "util/log.h"

#include <iostream>

namespace talvera::korvane {
namespace {

void Write(std::ostream& stream, const std::string& text) {
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.flush();
}

}  // namespace

void LogError(const std::string& line) { Write(std::cerr, line + "\n"); }

void LogErrorText(const std::string& text) { Write(std::cerr, text); }

void LogInfo(const std::string& line) { Write(std::cout, line + "\n"); }

void LogInfoText(const std::string& text) { Write(std::cout, text); }

}  // namespace talvera::korvane
