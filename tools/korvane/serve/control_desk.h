#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "../motion.h"
#include "util/guarded.h"

namespace korvane_tool {

/// Who may move a hand, and where it is to go. One at a time has it, and only as long as signs of
/// that one keep coming: the hand is aimed only while the last sign of a held switch is young, so
/// that it stops when the switch is released, and when the browser, its tab or its network goes.
///
/// Any thread.
class ControlDesk {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr auto kHoldTime = std::chrono::milliseconds(300);
  static constexpr auto kOwnerTime = std::chrono::seconds(3);

  struct Ticket {
    int owner;           ///< A number that everybody may see.
    std::string secret;  ///< Of the owner alone.
  };
  struct State {
    int owner = 0;  ///< 0: nobody.
    std::optional<Pose> target;
  };

  /// Nothing as long as somebody else has it.
  std::optional<Ticket> Take();
  /// A sign of the owner, without a switch that is held. False if it isn't the owner's.
  bool Keep(const std::string& secret);
  bool GiveUp(const std::string& secret);
  /// The switch is held, and the hand is to go there.
  bool Aim(const std::string& secret, const Pose& target);
  /// The switch is released.
  bool Release(const std::string& secret);
  /// The hand has gone: nobody has it any more.
  void Drop();

  /// Where the hand is to go now, if anywhere, and who says so.
  State Look();

 private:
  bool IsOwner(const std::string& secret) KORVANE_REQUIRES(mutex_);
  void Expire() KORVANE_REQUIRES(mutex_);

  talvera::korvane::Mutex mutex_;
  int last_owner_ KORVANE_GUARDED_BY(mutex_) = 0;
  std::string secret_ KORVANE_GUARDED_BY(mutex_);  ///< Empty: nobody.
  Clock::time_point owner_sign_ KORVANE_GUARDED_BY(mutex_);
  Clock::time_point hold_sign_ KORVANE_GUARDED_BY(mutex_);
  std::optional<Pose> target_ KORVANE_GUARDED_BY(mutex_);
};

}  // namespace korvane_tool
