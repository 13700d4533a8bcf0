#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "tool.h"

// How updates know of each other, and how far one is, told to the other programs of the same user:
// in files of the user's folder for running programs, $XDG_RUNTIME_DIR, which are locked as long as
// the update runs. Where there is no such folder nothing is told and nothing refused.

namespace korvane_tool {

/// So often those who have a hand open look whether it is updated. They close it then: a hand
/// object that asks for nothing still takes a hand's replies to an update for its own, and answers
/// them.
constexpr auto kUpdateCheck = std::chrono::milliseconds(200);

/// A file that one process at a time can hold, until the object or the process ends.
class HeldFile {
 public:
  /// No file for an empty path, and where it can't be made.
  explicit HeldFile(std::string path);
  ~HeldFile();
  HeldFile(const HeldFile&) = delete;
  HeldFile& operator=(const HeldFile&) = delete;

  bool IsHeld() const { return file_ >= 0; }
  bool IsHeldByAnother() const { return held_by_another_; }
  int Descriptor() const { return file_; }

 private:
  void Open();
  void Close();

  std::string path_;
  int file_ = -1;
  bool held_by_another_ = false;
};

/// Keeps two updates of one hand apart: the second would ruin the first, and both would leave the
/// hand without firmware. It is the same hand at the same place of a link, under the same id.
class UpdateTurn {
 public:
  /// Takes the turn unless this update has it already, or the address has no id that would tell the
  /// hand from the others of its bus. Throws a ToolError if another update has it.
  void Take(const HandAddress& address);

 private:
  std::optional<HeldFile> file_;
};

/// Tells of one update until its end, whatever ends it. Tells nothing of a hand without a serial
/// number, by which others look, or with that of another one that is being updated.
class UpdateNote {
 public:
  explicit UpdateNote(const std::string& serial_number);

  /// Waits until those who look have closed the hand.
  void AwaitOthers() const;

  /// `done` of `total` packets.
  void Write(int done, int total) const;

 private:
  HeldFile file_;
};

struct RunningUpdate {
  int done = 0;
  int total = 0;  ///< 0: not known yet.
};

/// The update of the hand with that serial number, if one runs now.
std::optional<RunningUpdate> UpdateOf(const std::string& serial_number);

}  // namespace korvane_tool
