#pragma once

#include <string>

#include "util/text.h"

namespace talvera::korvane {

/// Writes one whole line to the standard error stream.
void LogError(const std::string& line);

/// Writes a text as it stands, without a line end, to the standard error stream.
void LogErrorText(const std::string& text);

/// Writes one whole line to the standard output stream.
void LogInfo(const std::string& line);

/// Writes a text as it stands, without a line end, to the standard output stream.
void LogInfoText(const std::string& text);

}  // namespace talvera::korvane
