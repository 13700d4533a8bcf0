#pragma once

#include <functional>
#include <string_view>

#include "korvane_export.h"

/// Where the lines of the library go. Without anything of this header they go to the standard
/// streams: failures and warnings to the error stream, everything else to the output stream.
namespace talvera::korvane {

/// How much a line matters.
enum class LogLevel {
  DETAIL,   ///< Frames, and what only a developer of a protocol wants to see.
  INFO,     ///< What goes as it should, and texts of the serial link that tell of failed reads.
  WARNING,  ///< What was done in spite of something.
  ERROR,    ///< What wasn't done.
};

/// Takes one line, without its end. The view is valid during the call only. Some lines hold several
/// rows of text, and some texts of the library never had an end.
///
/// Called on whatever thread writes the line, receive threads included, and by several threads at
/// once; a few lines are written while the library holds a lock, so it mustn't call a hand. It must
/// not throw.
using LogSink = std::function<void(LogLevel, std::string_view line)>;

/// Sends every line of the library to `sink` from now on, instead of the standard streams; an empty
/// one gives the streams back. For the whole process. Any thread, at any time, also from within a
/// sink. A call of the former sink that has begun on another thread may still be running when this
/// returns; what it captured is kept until it ends.
KORVANE_EXPORT void SetLogSink(LogSink sink);

/// A sink that drops every line.
KORVANE_EXPORT LogSink SilentLog();

/// A sink that lets `lines_per_second` lines through to `to` in each second, errors and others
/// alike, and then says how many it left out ("[WARN]: 12 lines left out") before the next line
/// that it lets through. An empty `to` stands for the standard streams. Below 1 counts as 1.
KORVANE_EXPORT LogSink RateLimitedLog(int lines_per_second, LogSink to = {});

}  // namespace talvera::korvane
