#pragma once

#include <string_view>

// The standard streams. Nothing here throws or ends the process: a full disk, or a reader that has
// gone, must not end what a hand is in the middle of. Whether all was written is asked at the end.

namespace korvane_tool {

/// A write to a pipe that nobody reads any more fails, and the process goes on.
void OutliveReaders();

void WriteToStdout(std::string_view text);
/// Writes out what is buffered.
void FlushStdout();
/// The errno of the first write to the standard output that failed; 0 if none has.
int StdoutError();

/// What can't be written there is lost. Any thread.
void WriteToStderr(std::string_view text);

}  // namespace korvane_tool
