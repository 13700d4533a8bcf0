#include "hand_bridge.h"

#include <korvane_open.h>

#include <algorithm>
#include <cmath>
#include <exception>

#include "common/standard_streams.h"
#include "common/touch.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;
using kv::Failure;
using kv::FailureKind;
using kv::KorvaneBase;
using Clock = std::chrono::steady_clock;

constexpr int kFailuresInARow = 3;
constexpr auto kSilence = std::chrono::seconds(1);
constexpr double kErrorReadings = 10;  // in a second
constexpr double kSlowReadings = 1;    // in a second
constexpr double kLongestStep = 2;     // cycles that a walk may make up for after a stall

void WriteLine(kv::LogLevel, std::string_view line) {
  korvane_common::WriteToStderr("korvane-ros2: " + std::string(line) + "\n");
}

SpaceRules WithSolver(SpaceRules rules, const Kinematics& kinematics) {
  rules.go_together = [&kinematics](const std::vector<double>& angles) {
    return !kinematics || kinematics.held(angles) == angles;
  };
  return rules;
}

std::vector<std::string> NamesOf(const SpaceRules& rules) {
  std::vector<std::string> names;
  for (const Axis& axis : rules.axes) names.push_back(axis.name);
  return names;
}

}  // namespace

HandBridge::HandBridge(const Participant& participant, const HandOptions& hand_options,
                       const Options& options, std::unique_ptr<KorvaneBase> hand,
                       bool renews_silent)
    : options_(hand_options),
      rate_(options.rate),
      timeout_ms_(options.timeout_ms),
      renews_silent_(renews_silent),
      model_(kv::InfoOf(*hand_options.address.model)),
      joint_rules_(JointRules(model_.model, hand_options.address.side, hand_options.prefix,
                              options.joint_speed)),
      joint_names_(NamesOf(joint_rules_)),
      hand_(std::move(hand)),
      gate_(WithSolver(joint_rules_, kinematics_), MotorRules(model_.model, options.motor_speed),
            options.gate),
      endpoints_(participant, options_, options.commands, *hand_, mailbox_),
      log_(kv::RateLimitedLog(1, WriteLine)) {
  now_.allows_commands = options.gate.allow;
  UseHand();
  thread_ = std::thread(&HandBridge::Run, this);
}

HandBridge::~HandBridge() {
  {
    const kv::MutexLock lock(mutex_);
    is_ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void HandBridge::Run() {
  const auto period = std::chrono::duration_cast<Clock::duration>(Seconds(1 / rate_));
  Instant next = Clock::now();
  Instant last = next;
  do {
    const Instant now = Clock::now();
    TakeTurn(now - last);
    last = now;
    next += hand_ ? period : Clock::duration(kSilence);
    if (next < Clock::now()) {
      next = Clock::now();
      ++now_.late_cycles;
    }
  } while (WaitUntil(next));
}

/// Whatever is thrown is a failure of this hand: the other hands go on.
void HandBridge::TakeTurn(Seconds since_last) {
  try {
    if (hand_) {
      Cycle(since_last);
    } else {
      Reopen();
    }
  } catch (const std::exception& error) {
    Count({FailureKind::BAD_REPLY, "", error.what()});
    Renew();
  }
  UpdateHealth();
}

/// False once the program ends.
bool HandBridge::WaitUntil(Instant time) {
  kv::MutexLock lock(mutex_);
  return !changed_.wait_until(lock, time, [this]() KORVANE_REQUIRES(mutex_) { return is_ending_; });
}

void HandBridge::Cycle(Seconds since_last) {
  ++cycle_;
  ReadPositions();
  if (IsTurn(kErrorReadings)) ReadErrors();
  gate_.SetFault(failures_ >= kFailuresInARow || HasErrors(now_.errors));
  TakeCommands();
  SendStep(std::min(since_last, Seconds(kLongestStep / rate_)));
  ReadCurrents();
  ReadTouch();
  if (IsTurn(kSlowReadings)) ReadTemperatures();
  LookAfterLink();
}

bool HandBridge::IsTurn(double times) const {
  const auto cycles = static_cast<std::uint64_t>(std::max(1.0, std::round(rate_ / times)));
  return cycle_ % cycles == 1 % cycles;
}

void HandBridge::UseHand() {
  kinematics_ = korvane_common::KinematicsOf(*hand_);
  if (timeout_ms_ != 0) hand_->SetFrameRecvTimeout(timeout_ms_);
  last_answer_ = Clock::now();
  failures_ = 0;
  now_.is_open = true;
}

void HandBridge::CloseHand(const std::string& why) {
  now_.trouble = why;
  now_.is_open = false;
  now_.errors.clear();
  now_.temperatures.clear();
  log_(kv::LogLevel::ERROR, options_.name_space + ": the hand has gone: " + why);
  gate_.Lost();
  hand_.reset();
}

/// By its address with model and id: another hand in its place isn't taken for it.
void HandBridge::Reopen() {
  auto hand = kv::OpenHand(options_.address);
  if (!hand) {
    now_.trouble = hand.failure().text;
    return;
  }
  hand_ = *std::move(hand);
  ++now_.reopened;
  UseHand();
}

template <class Operation>
auto HandBridge::Ask(Operation operation) {
  auto outcome = kv::Checked(*hand_, operation);
  Count(outcome.failure());
  return outcome;
}

void HandBridge::Count(const Failure& failure) {
  if (failure.kind == FailureKind::NOT_SUPPORTED) return;
  if (failure.kind == FailureKind::NONE) {
    failures_ = 0;
    last_answer_ = Clock::now();
    return;
  }
  ++failures_;
  ++now_.failed_requests;
  now_.trouble = failure.text;
}

void HandBridge::CountSent(bool was_sent) {
  if (!was_sent) ++now_.unsent_messages;
}

void HandBridge::ReadPositions() {
  const std::int64_t before = WallClock();
  auto positions = Ask([](const KorvaneBase& hand) { return hand.GetAllJointMotorPosi(); });
  const auto wanted = static_cast<std::size_t>(model_.positions);
  if (!positions || positions->size() < wanted || !IsSameHand()) return;
  const std::int64_t stamp = before + (WallClock() - before) / 2;
  positions->resize(wanted);  // the bus pads
  pose_ = *positions;
  ++now_.readings;
  const std::vector<double> motors(pose_.begin(), pose_.end());
  CountSent(Publish(endpoints_.motor_positions, "motor", motors));
  if (!kinematics_) return gate_.Measured({}, motors);
  const auto angles = AnglesOf(kinematics_, pose_);
  gate_.Measured(kinematics_.held(angles), motors);
  CountSent(Publish(endpoints_.joint_states,
                    {stamp, options_.frame_id, joint_names_, hand_->GetAllJointPos(angles)}));
}

void HandBridge::ReadErrors() {
  auto errors = Ask([](const KorvaneBase& hand) { return hand.GetAllErrorReport(); });
  if (errors) now_.errors = *std::move(errors);
}

/// A model that tells these in reports has none before somebody switches the reports on.
void HandBridge::ReadTemperatures() {
  const auto read = [](const KorvaneBase& hand) { return hand.GetAllTemperatureReport(); };
  auto temperatures = model_.tells_by_reports ? kv::Checked(*hand_, read) : Ask(read);
  if (temperatures) now_.temperatures = *std::move(temperatures);
}

void HandBridge::ReadCurrents() {
  if (endpoints_.motor_currents.Readers() == 0) return;
  const auto read = [](const KorvaneBase& hand) { return hand.GetAllCurrentReport(); };
  const auto currents = model_.tells_by_reports ? kv::Checked(*hand_, read) : Ask(read);
  if (!currents || currents->empty()) return;
  const auto count = std::min(currents->size(), static_cast<std::size_t>(model_.positions));
  const auto end = currents->begin() + static_cast<std::ptrdiff_t>(count);
  CountSent(
      Publish(endpoints_.motor_currents, "motor", std::vector<double>(currents->begin(), end)));
}

/// One sensor in a cycle, those in turn that somebody listens to.
void HandBridge::ReadTouch() {
  for (std::size_t i = 0; i < endpoints_.touch.size(); ++i) {
    const TouchTopic& topic = endpoints_.touch[next_touch_++ % endpoints_.touch.size()];
    if (topic.writer.Readers() == 0) continue;
    const auto cells = Ask([&](const KorvaneBase& hand) {
      return korvane_common::TouchOf(hand, options_.address.link, topic.finger);
    });
    if (cells && !cells->empty()) CountSent(Publish(topic.writer, "cell", *cells));
    return;
  }
}

void HandBridge::TakeCommands() {
  for (const Command& command : mailbox_.TakeAll(WallClock())) {
    const auto refusal = gate_.Take(command, Clock::now());
    if (!refusal) continue;
    if (*refusal == Refusal::OTHER_COMMANDER) now_.refused_commander = command.commander;
    log_(kv::LogLevel::WARNING,
         options_.name_space + ": command refused: " + TextOf(*refusal).text);
  }
}

void HandBridge::SendStep(Seconds since_last) {
  const auto step = gate_.Walk(Clock::now(), since_last);
  const auto space = step ? std::optional<Space>(step->space) : std::nullopt;
  if (std::exchange(walks_in_, space) != space) standing_ = pose_;
  if (!step) return;
  const Pose pose = ToPose(*step);
  Ask([&](KorvaneBase& hand) { return hand.SetAllJointMotorPosi(pose); });
}

Pose HandBridge::ToPose(const Step& step) const {
  if (step.space == Space::JOINTS) {
    return PoseWith(kinematics_, joint_rules_, step.values, standing_);
  }
  Pose pose;
  for (const double value : step.values) {
    const double within = std::clamp(value, 0.0, static_cast<double>(model_.position_max));
    pose.push_back(static_cast<short>(std::lround(within)));
  }
  return pose;
}

void HandBridge::LookAfterLink() {
  if (kv::StatisticsOf(*hand_).link_lost) return CloseHand("the link has gone");
  if (Clock::now() - last_answer_ >= kSilence) Renew();
}

/// A hand that isn't to be relied on is opened anew, unless its end would stop others.
void HandBridge::Renew() {
  if (renews_silent_) return CloseHand(now_.trouble);
  gate_.Lost();
  must_identify_ = true;
}

/// Whether what answers is the model that was opened, after a silence in which the hand object
/// stayed.
bool HandBridge::IsSameHand() {
  if (!must_identify_) return true;
  const auto model = kv::IdentifyHand(*hand_);
  must_identify_ = !model || *model != model_.model;
  if (must_identify_) Count({FailureKind::BAD_REPLY, "IdentifyHand", "another model answers"});
  return !must_identify_;
}

void HandBridge::UpdateHealth() {
  now_.answers = failures_ < kFailuresInARow;
  now_.arming = gate_.State();
  now_.is_silent = gate_.IsSilent();
  now_.commander = gate_.Commander();
  now_.accepted = gate_.Accepted();
  for (std::size_t i = 0; i < kRefusals; ++i) {
    now_.refused[i] = gate_.Refused(static_cast<Refusal>(i));
  }
  const kv::MutexLock lock(mutex_);
  health_ = now_;
}

Status HandBridge::Report() {
  Health health;
  {
    const kv::MutexLock lock(mutex_);
    health_.failed_recently =
        health_.failed_requests - std::exchange(failed_before_, health_.failed_requests);
    health = health_;
  }
  health.link = options_.address.link;
  health.superseded = mailbox_.Superseded();
  health.qos_mismatches = endpoints_.Mismatches();
  health.failed_commands = endpoints_.Failures();
  Status status = ToStatus(health);
  status.name = "korvane: " + options_.name_space;
  status.hardware_id = options_.address.ToString();
  return status;
}

}  // namespace korvane_ros2
