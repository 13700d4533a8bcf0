#pragma once

#include <chrono>

namespace korvane_tool {

/// Ctrl-C, and the wish of the system that the program ends, as something that a loop can ask for
/// and wait on. While no object of this class exists either ends the program at once, with status
/// 130.
///
/// One object at a time.
class Interrupt {
 public:
  /// Before the first of them, once: what happens while there is none.
  static void EndAtOnce();

  Interrupt();
  ~Interrupt();
  Interrupt(const Interrupt&) = delete;
  Interrupt& operator=(const Interrupt&) = delete;

  /// How often it came since this object was made.
  int Count() const;
  bool Came() const { return Count() > 0; }

  /// Waits until `end`, or until an interrupt comes. True if one came, now or before.
  bool WaitUntil(std::chrono::steady_clock::time_point end) const;
  /// The same for a length of time.
  bool WaitFor(std::chrono::steady_clock::duration time) const {
    return WaitUntil(std::chrono::steady_clock::now() + time);
  }
};

}  // namespace korvane_tool
