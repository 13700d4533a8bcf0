#pragma once

#include <new>
#include <string>

#include "korvane_log.h"
#include "util/text.h"

// Every line of the library passes here, on its way to the standard streams or to the sink that the
// application has set. What goes to the error stream is an error or, by how it begins, a warning.

namespace talvera::korvane {

/// Writes one whole line to the standard error stream.
void LogError(const std::string& line);

/// Writes a text as it stands, without a line end, to the standard error stream.
void LogErrorText(const std::string& text);

/// Writes one whole line to the standard output stream.
void LogInfo(const std::string& line);

/// The same for frames and the like.
void LogDetail(const std::string& line);

/// Writes such a text as it stands, without a line end, to the standard output stream.
void LogDetailText(const std::string& text);

/// Runs what composes and writes a line, for destructors and what they call: where there is no
/// memory for the line it isn't written.
template <class Log>
void LogIfMemoryLasts(const Log& log) noexcept {
  try {
    log();
  } catch (const std::bad_alloc&) {
    // What is being closed matters more.
  }
}

}  // namespace talvera::korvane
