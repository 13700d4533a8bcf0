#pragma once

#include <sstream>
#include <string>

namespace talvera::korvane {

/// Composes a message from its parts before anything is written, so that lines of several threads
/// don't run into each other. A uint8_t goes in as the raw byte that it is.
template <class... Parts>
std::string Compose(const Parts&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

/// Writes one whole line to the standard error stream.
void LogError(const std::string& line);

/// Writes a text as it stands, without a line end, to the standard error stream.
void LogErrorText(const std::string& text);

/// Writes one whole line to the standard output stream.
void LogInfo(const std::string& line);

}  // namespace talvera::korvane
