#pragma once

#include <string_view>

// The standard streams. Nothing here throws or ends the process: a full disk, or a reader that has
// gone, must not end what a hand is in the middle of. Whether all was written is asked at the end.

namespace korvane_common {

/// For the begin of a program, before it opens anything. A write to a pipe that nobody reads any
/// more fails, and the process goes on. A stream that is closed stays without a reader and a
/// writer, but its number is taken: otherwise the port of a hand could get it, and with it every
/// text.
void PrepareStandardStreams();

void WriteToStdout(std::string_view text);
/// Writes out what is buffered.
void FlushStdout();

/// What can't be written there is lost. Any thread.
void WriteToStderr(std::string_view text);

/// For the end of `program`: writes out what is buffered, as a full disk may show only then.
/// Returns `status`, or kFailed in place of kDone, with a line on stderr, if any of the standard
/// output couldn't be written.
int WriteTheRest(std::string_view program, int status);

}  // namespace korvane_common
