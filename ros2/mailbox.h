#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

#include "command_gate.h"
#include "util/guarded.h"

namespace korvane_ros2 {

/// Takes commands from threads of DDS to the one that owns the hand: the newest of each commander,
/// so that one who writes often doesn't push the commands of another aside. Any thread.
class Mailbox {
 public:
  /// Keeps a command in place of its commander's last. `written` is when it was, by the wall clock.
  void Put(Command command, std::int64_t written_ns) {
    const talvera::korvane::MutexLock lock(mutex_);
    const auto same = std::find_if(letters_.begin(), letters_.end(), [&](const Letter& letter) {
      return letter.command.commander == command.commander;
    });
    const bool is_new = same == letters_.end();
    if (!is_new || letters_.size() == kMostCommanders) ++superseded_;
    if (is_new && letters_.size() == kMostCommanders) return;
    const auto place = is_new ? letters_.insert(letters_.end(), Letter{}) : same;
    *place = Letter{std::move(command), written_ns};
  }

  /// All that is there, with its age at `now`.
  std::vector<Command> TakeAll(std::int64_t now_ns) {
    const talvera::korvane::MutexLock lock(mutex_);
    std::vector<Command> commands;
    for (Letter& letter : letters_) {
      letter.command.age = std::chrono::nanoseconds(now_ns - letter.written_ns);
      commands.push_back(std::move(letter.command));
    }
    letters_.clear();
    return commands;
  }

  /// Commands that were overtaken by a newer one before the hand's thread came for them.
  std::uint64_t Superseded() const {
    const talvera::korvane::MutexLock lock(mutex_);
    return superseded_;
  }

 private:
  struct Letter {
    Command command;
    std::int64_t written_ns = 0;
  };
  /// What more than these send between two cycles is dropped.
  static constexpr std::size_t kMostCommanders = 16;

  mutable talvera::korvane::Mutex mutex_;
  std::vector<Letter> letters_ KORVANE_GUARDED_BY(mutex_);
  std::uint64_t superseded_ KORVANE_GUARDED_BY(mutex_) = 0;
};

}  // namespace korvane_ros2
