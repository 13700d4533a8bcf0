#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "../quantities.h"
#include "../reading.h"
#include "../tool.h"
#include "../update_note.h"
#include "served_hand.h"
#include "util/guarded.h"

namespace korvane_tool {

/// The wish that a thread ends, as something to wait on.
class StopSign {
 public:
  void Set();
  bool Came() const;
  /// True if it came, now or before.
  bool WaitUntil(std::chrono::steady_clock::time_point end) const;

 private:
  mutable talvera::korvane::Mutex mutex_;
  mutable std::condition_variable changed_;
  bool came_ KORVANE_GUARDED_BY(mutex_) = false;
};

/// The newest text, for any number of readers.
class Board : public Newest {
 public:
  void Publish(std::string text);
  Text Get() const override;

 private:
  mutable talvera::korvane::Mutex mutex_;
  Text text_ KORVANE_GUARDED_BY(mutex_);
};

/// How a link does: rate, losses, round trips.
class LinkRecord {
 public:
  void Count(bool answered, std::chrono::steady_clock::duration round_trip);
  Json ToJson(const OpenedHand* hand) const;

 private:
  static constexpr std::size_t kTrips = 1000;

  std::size_t readings_ = 0;
  std::size_t lost_ = 0;
  double rate_hz_ = 0;
  std::chrono::steady_clock::time_point second_;  ///< In which they are counted now.
  int in_second_ = 0;
  std::vector<double> trips_us_;
  std::size_t next_trip_ = 0;
  double p50_us_ = 0;
  double p99_us_ = 0;
};

struct FeedSettings {
  std::size_t number = 1;  ///< Among the hands of this program.
  double rate_hz = 30;
  int report_period = 0;
  bool allows_control = false;
  /// Other hands of this program are on the same adapter. Closing one stops the channel for all.
  bool shares_adapter = false;
};

/// One hand, in a thread of its own, which reads it, publishes what it tells, and moves it where
/// its owner says. A hand that doesn't answer is asked for again until it does, under the same
/// address, and must have the same serial number.
class HandFeed : public ServedHand {
 public:
  HandFeed(const Tool& tool, OpenedHand hand, FeedSettings settings,
           std::function<void()> published);
  ~HandFeed() override;

  void Start();
  /// Begins to end; the destructor waits.
  void Stop() { stop_.Set(); }

  Json Description() const override;
  std::shared_ptr<const Newest> Events() const override { return board_; }
  ControlDesk& Desk() override { return desk_; }
  Pose TargetOf(const Json& request) override;

 private:
  using Clock = std::chrono::steady_clock;

  void Describe(const OpenedHand& hand, const talvera::korvane::VendorInfo& vendor);
  bool IsUpdated();
  void Run();
  void ReadWhileItAnswers();
  bool Step(Reading& reading);
  void Steer(const Reading& reading);
  void LookForIt();
  void LetGo();
  void Reopen();
  talvera::korvane::VendorInfo CheckIdentity(const OpenedHand& hand) const;
  void PublishReading(const Reading& reading);
  void PublishAway();
  void Publish(Json json);

  const Tool& tool_;
  const FeedSettings settings_;
  const std::function<void()> published_;
  HandAddress address_;
  std::string serial_number_;

  /// Guards description_, hand_ and pose_ against other threads. The feed's own thread, which alone
  /// changes them, takes it for that, and reads them without it.
  mutable talvera::korvane::Mutex hand_mutex_;
  Json description_;
  std::optional<OpenedHand> hand_;
  std::optional<Pose> pose_;  ///< Where it stood last; nothing while it has gone.

  StopSign stop_;
  ControlDesk desk_;
  LinkRecord link_;
  Failure failure_;
  std::optional<RunningUpdate> update_;  ///< By another program; the hand isn't asked meanwhile.
  Clock::time_point looked_for_update_;
  const Clock::time_point start_ = Clock::now();
  Clock::time_point answered_;
  std::vector<double> setpoint_;  ///< On the way; empty while nothing is sent.
  Clock::time_point steered_;
  std::size_t number_ = 0;
  std::shared_ptr<Board> board_ = std::make_shared<Board>();
  std::thread thread_;
};

}  // namespace korvane_tool
