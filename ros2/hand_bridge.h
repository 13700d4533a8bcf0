#pragma once

#include <korvane.h>
#include <korvane_diagnostics.h>
#include <korvane_log.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "command_gate.h"
#include "endpoints.h"
#include "health.h"
#include "joint_rules.h"
#include "mailbox.h"
#include "options.h"
#include "util/guarded.h"

namespace korvane_ros2 {

/// One hand in ROS 2: a thread of its own asks it at a steady rate, tells what it says, and carries
/// out commands. Nobody else asks the hand, and no thread of DDS waits for it.
class HandBridge {
 public:
  /// `hand` has answered at the address of `hand_options`, which has its model and its id.
  /// `renews_silent`: a hand that is silent may be closed and opened anew.
  HandBridge(const Participant& participant, const HandOptions& hand_options,
             const Options& options, std::unique_ptr<talvera::korvane::KorvaneBase> hand,
             bool renews_silent);
  /// Sends nothing more to the hand and ends.
  ~HandBridge();
  HandBridge(const HandBridge&) = delete;
  HandBridge& operator=(const HandBridge&) = delete;

  /// How the hand is. Any thread.
  Status Report();
  Node ToNode() const { return endpoints_.ToNode(options_.name_space); }

 private:
  void Run();
  void TakeTurn(Seconds since_last);
  bool WaitUntil(Instant time);
  void Cycle(Seconds since_last);
  void Reopen();
  void UseHand();
  void CloseHand(const std::string& why);
  void ReadPositions();
  void ReadErrors();
  void ReadTemperatures();
  void ReadCurrents();
  void ReadTouch();
  void TakeCommands();
  void SendStep(Seconds since_last);
  Pose ToPose(const Step& step) const;
  void LookAfterLink();
  void Renew();
  bool IsSameHand();
  void UpdateHealth();
  void Count(const talvera::korvane::Failure& failure);
  void CountSent(bool was_sent);
  template <class Operation>
  auto Ask(Operation operation);
  /// Whether this cycle is one of those that come `times` in a second.
  bool IsTurn(double times) const;

  const HandOptions options_;
  const double rate_;
  const int timeout_ms_;
  const bool renews_silent_;
  const talvera::korvane::ModelInfo& model_;
  SpaceRules joint_rules_;
  std::vector<std::string> joint_names_;
  std::unique_ptr<talvera::korvane::KorvaneBase> hand_;
  Kinematics kinematics_;
  CommandGate gate_;
  Mailbox mailbox_;
  Endpoints endpoints_;
  talvera::korvane::LogSink log_;

  std::uint64_t cycle_ = 0;
  Pose pose_;                      ///< As last read; empty if it wasn't.
  std::optional<Space> walks_in_;  ///< The walk under way.
  Pose standing_;                  ///< Where the hand was when that began.
  int failures_ = 0;               ///< In a row.
  Instant last_answer_;
  bool must_identify_ = false;
  std::size_t next_touch_ = 0;
  Health now_;  ///< Of the hand's thread.

  talvera::korvane::Mutex mutex_;
  std::condition_variable changed_;
  bool is_ending_ KORVANE_GUARDED_BY(mutex_) = false;
  Health health_ KORVANE_GUARDED_BY(mutex_);
  std::uint64_t failed_before_ KORVANE_GUARDED_BY(mutex_) = 0;

  std::thread thread_;  ///< The last, as it uses all others.
};

}  // namespace korvane_ros2
