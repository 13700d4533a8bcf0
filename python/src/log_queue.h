#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <string>
#include <utility>

// The lines of the library on their way to Python's logging. The library writes them on threads of
// its own and with locks of its own: they wait here for a thread of Python, so that no library
// thread ever waits for the GIL.

namespace korvane_python {

struct LogLine {
  int level;  ///< As korvane_log.h numbers them.
  std::string text;
};

/// Takes every line of the library from now on. Until Python fetches them the newest are kept.
void CollectLogLines();

/// The lines that came, once there is one, at the latest after that time. Empty from
/// EndLogLines on.
std::deque<LogLine> TakeLogLines(std::chrono::milliseconds at_most);

/// No wait for lines lasts any longer.
void EndLogLines();

/// In the child of a fork: a thread that was in the queue then isn't there to leave it.
void RenewLogLines();

}  // namespace korvane_python
