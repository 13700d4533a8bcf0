#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tool.h"

// How far an update is, told to the other programs of the same user: in a file of the user's folder
// for running programs, $XDG_RUNTIME_DIR, which is locked as long as the update runs.

namespace korvane_tool {

/// So often those who have a hand open look whether it is updated. They close it then: a hand
/// object that asks for nothing still takes a hand's replies to an update for its own, and answers
/// them.
constexpr auto kUpdateCheck = std::chrono::milliseconds(200);

/// Tells of one update until its end, whatever ends it. Tells nothing where there is no such
/// folder, and of a hand without a serial number, by which others look.
class UpdateNote {
 public:
  explicit UpdateNote(const std::string& serial_number);
  ~UpdateNote();
  UpdateNote(const UpdateNote&) = delete;
  UpdateNote& operator=(const UpdateNote&) = delete;

  /// Waits until those who look have closed the hand.
  void AwaitOthers() const;

  /// `done` of `total` packets.
  void Tell(int done, int total) const;

 private:
  std::string path_;
  int file_ = -1;
};

struct RunningUpdate {
  int done = 0;
  int total = 0;  ///< 0: not known yet.
};

/// The update of the hand with that serial number, if one runs now.
std::optional<RunningUpdate> UpdateOf(const std::string& serial_number);

}  // namespace korvane_tool
