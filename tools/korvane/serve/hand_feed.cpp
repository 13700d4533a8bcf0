#include "hand_feed.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <exception>

#include "../motion.h"
#include "../percentile.h"
#include "../samples.h"
#include "pose_request.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// Readings may fail for so long before a hand counts as gone.
constexpr auto kSilence = std::chrono::milliseconds(500);
constexpr auto kRetry = std::chrono::milliseconds(300);
/// A whole range takes so long, so that a released switch stops the hand where it is.
constexpr double kRangeSeconds = 2;

kv::VendorInfo VendorOf(const OpenedHand& hand) {
  return Need(Checked(*hand, [](const KorvaneBase& h) { return h.GetVendorInfo(); }));
}

Json Joints(const OpenedHand& hand) {
  Json joints = Json::array();
  for (const kv::JointInfo& joint : kv::JointsOf(hand.Info().model, hand.address.side)) {
    joints.push_back({{"name", joint.name},
                      {"lower", joint.lower},
                      {"upper", joint.upper},
                      {"can_be_commanded", joint.can_be_commanded}});
  }
  return joints;
}

Json TouchOf(const Reading& reading) {
  Json touch = Json::object();
  for (const auto& sensor : reading.Touch()) touch[FingerName(sensor.finger)] = sensor.data;
  return touch;
}

/// What an exception tells as the failure of a hand.
Failure FailureIn(const std::exception& error) {
  const auto* const known = dynamic_cast<const ToolError*>(&error);
  const bool has_cause = known != nullptr && known->Cause().kind != FailureKind::NONE;
  return has_cause ? known->Cause() : Failure{FailureKind::REFUSED, "", error.what()};
}

}  // namespace

void StopSign::Set() {
  {
    const kv::MutexLock lock(mutex_);
    came_ = true;
  }
  changed_.notify_all();
}

bool StopSign::Came() const {
  const kv::MutexLock lock(mutex_);
  return came_;
}

bool StopSign::WaitUntil(std::chrono::steady_clock::time_point end) const {
  kv::MutexLock lock(mutex_);
  return changed_.wait_until(lock, end, [this]() KORVANE_REQUIRES(mutex_) { return came_; });
}

void Board::Publish(std::string text) {
  auto made = std::make_shared<const std::string>(std::move(text));
  const kv::MutexLock lock(mutex_);
  text_ = std::move(made);
}

Newest::Text Board::Get() const {
  const kv::MutexLock lock(mutex_);
  return text_;
}

void LinkRecord::Count(bool answered, std::chrono::steady_clock::duration round_trip) {
  const auto now = std::chrono::steady_clock::now();
  ++readings_;
  lost_ += answered ? 0 : 1;
  if (answered) {
    trips_us_.resize(std::min(trips_us_.size() + 1, kTrips));
    trips_us_[next_trip_++ % kTrips] =
        std::chrono::duration<double, std::micro>(round_trip).count();
    ++in_second_;
  }
  const double elapsed = std::chrono::duration<double>(now - second_).count();
  if (elapsed < 1 && readings_ > 1) return;
  rate_hz_ = readings_ > 1 ? in_second_ / elapsed : 0;
  in_second_ = 0;
  second_ = now;
  if (trips_us_.empty()) return;
  std::vector<double> sorted = trips_us_;
  std::sort(sorted.begin(), sorted.end());
  p50_us_ = Percentile(sorted, 0.5);
  p99_us_ = Percentile(sorted, 0.99);
}

Json LinkRecord::ToJson(const OpenedHand* hand) const {
  const auto rounded = [](double number, double digits) {
    return NumberOf(std::round(number * digits) / digits);
  };
  Json json{{"rate_hz", rounded(rate_hz_, 10)},
            {"readings", readings_},
            {"lost", lost_},
            {"p50_us", rounded(p50_us_, 1)},
            {"p99_us", rounded(p99_us_, 1)}};
  if (hand == nullptr) return json;
  const auto statistics = StatisticsOf(**hand);
  json["requests"] = statistics.requests;
  json["timeouts"] = statistics.timeouts;
  json["bad_replies"] = statistics.bad_replies;
  json["send_failures"] = statistics.send_failures;
  json["unmatched_frames"] = statistics.unmatched_frames;
  return json;
}

HandFeed::HandFeed(const Tool& tool, OpenedHand hand, FeedSettings settings,
                   std::function<void()> published)
    : tool_(tool),
      settings_(settings),
      published_(std::move(published)),
      address_(hand.address),
      hand_(std::move(hand)) {
  const auto vendor = VendorOf(*hand_);
  serial_number_ = kv::PlainText(vendor.serial_number);
  Describe(*hand_, vendor);
}

HandFeed::~HandFeed() {
  Stop();
  if (thread_.joinable()) thread_.join();
}

void HandFeed::Start() {
  thread_ = std::thread([this] { Run(); });
}

void HandFeed::Describe(const OpenedHand& hand, const kv::VendorInfo& vendor) {
  const ModelInfo& info = hand.Info();
  Json json = ToJson(address_);
  json["class"] = info.class_name;
  AddVendor(vendor, json);
  json["position_max"] = info.position_max;
  json["motors"] = info.has_motors ? info.positions : 0;
  json["gestures"] = info.gestures;
  json["joints"] = Joints(hand);
  json["rate_hz"] = NumberOf(settings_.rate_hz);
  auto pose = PoseOf(hand);
  const kv::MutexLock lock(hand_mutex_);
  description_ = std::move(json);
  pose_ = std::move(pose);
}

Json HandFeed::Description() const {
  const kv::MutexLock lock(hand_mutex_);
  return description_;
}

Pose HandFeed::TargetOf(const Json& request) {
  const auto target = desk_.Look().target;
  const kv::MutexLock lock(hand_mutex_);
  if (!hand_ || !pose_) throw ToolError(kNobody, "the hand doesn't answer");
  const auto within = PositionsWithin(hand_->Info(), *pose_);
  return PoseIn(request, *hand_, target ? *target : Pose(within.begin(), within.end()));
}

void HandFeed::Run() {
  while (!stop_.Came()) {
    try {
      if (IsUpdated()) {
        if (!settings_.shares_adapter) LetGo();
      } else {
        if (number_ > 0) LookForIt();
        ReadWhileItAnswers();
      }
    } catch (const std::exception& error) {
      failure_ = FailureIn(error);  // of this hand; the others go on
    }
    desk_.Drop();
    PublishAway();
    if (stop_.WaitUntil(Clock::now() + kRetry)) return;
  }
}

void HandFeed::ReadWhileItAnswers() {
  const Reports reports(*hand_, hand_->Info().tells_by_reports ? settings_.report_period : 0);
  if (!reports.AwaitFirst([this] { return stop_.Came(); })) return;
  Reading reading(*hand_);
  answered_ = Clock::now();
  AtRate(settings_.rate_hz, stop_, [&] { return Step(reading); });
}

/// Whether another program updates the hand.
bool HandFeed::IsUpdated() {
  if (!update_ && Clock::now() - looked_for_update_ < kUpdateCheck) return false;
  looked_for_update_ = Clock::now();
  update_ = UpdateOf(serial_number_);
  return update_.has_value();
}

bool HandFeed::Step(Reading& reading) {
  if (IsUpdated()) return false;
  const auto refreshed = reading.Refresh();
  link_.Count(static_cast<bool>(refreshed), reading.RoundTrip());
  if (refreshed) {
    answered_ = Clock::now();
    const auto* const positions = reading.ValuesOf("positions");
    const kv::MutexLock lock(hand_mutex_);
    if (positions != nullptr) pose_ = Pose(positions->begin(), positions->end());
  } else {
    failure_ = refreshed.failure();
    if (StatisticsOf(**hand_).link_lost || Clock::now() - answered_ > kSilence) return false;
  }
  Steer(reading);
  PublishReading(reading);
  return true;
}

/// A small step towards the target, so that nothing is left to go to when the switch is released.
void HandFeed::Steer(const Reading& reading) {
  const auto target = desk_.Look().target;
  const auto now = Clock::now();
  const double elapsed = std::chrono::duration<double>(now - std::exchange(steered_, now)).count();
  if (!target || reading.ValuesOf("positions") == nullptr) return setpoint_.clear();
  if (setpoint_.empty()) setpoint_ = PositionsWithin(hand_->Info(), *pose_);
  const double step = hand_->Info().position_max * std::min(elapsed, 0.1) / kRangeSeconds;
  for (std::size_t i = 0; i < setpoint_.size(); ++i) {
    setpoint_[i] += std::clamp((*target)[i] - setpoint_[i], -step, step);
  }
  const Pose pose = CheckedPose(hand_->Info(), setpoint_);
  const auto sent = Checked(**hand_, [&](KorvaneBase& h) { h.SetAllJointMotorPosi(pose); });
  if (!sent) failure_ = sent.failure();
}

void HandFeed::LookForIt() {
  const bool is_open = hand_ && !StatisticsOf(**hand_).link_lost;
  if (!is_open || !settings_.shares_adapter) Reopen();
  Describe(*hand_, CheckIdentity(*hand_));
}

void HandFeed::LetGo() {
  std::optional<OpenedHand> old;  // which ends outside the lock
  const kv::MutexLock lock(hand_mutex_);
  old.swap(hand_);
}

void HandFeed::Reopen() {
  LetGo();  // before the link is opened again
  OpenedHand opened = tool_.Open(address_);
  const kv::MutexLock lock(hand_mutex_);
  hand_ = std::move(opened);
}

kv::VendorInfo HandFeed::CheckIdentity(const OpenedHand& hand) const {
  const Model model = Need(IdentifyHand(*hand));
  if (model != *address_.model) {
    throw ToolError(kOtherModel, fmt::format("a {} answers now", ToString(model)));
  }
  auto vendor = VendorOf(hand);
  const std::string serial_number = kv::PlainText(vendor.serial_number);
  if (serial_number != serial_number_) {
    throw ToolError(kOtherModel,
                    fmt::format("another hand answers now, with the serial number {}, not {}",
                                serial_number, serial_number_));
  }
  return vendor;
}

void HandFeed::PublishReading(const Reading& reading) {
  Json json{{"hand", settings_.number}, {"state", "live"}};
  for (const Quantity& quantity : AllQuantities()) {
    const auto* const values = reading.ValuesOf(quantity.key);
    if (values == nullptr) continue;
    json[quantity.key] = NumbersOf(*values);
    if (quantity.is_error_word) json["error_names"] = ErrorTexts(*values, address_.link);
  }
  if (!reading.Touch().empty()) json["touch"] = TouchOf(reading);
  Publish(std::move(json));
}

void HandFeed::PublishAway() {
  {
    const kv::MutexLock lock(hand_mutex_);
    pose_.reset();
  }
  setpoint_.clear();
  Json json{{"hand", settings_.number}, {"state", update_ ? "updating" : "gone"}};
  if (update_) {
    json["update"] = {{"done", update_->done}, {"total", update_->total}};
  } else {
    json["failure"] = ToJson(failure_);
  }
  Publish(std::move(json));
}

void HandFeed::Publish(Json json) {
  json["time_s"] =
      std::round(std::chrono::duration<double>(Clock::now() - start_).count() * 1e4) / 1e4;
  json["link"] = link_.ToJson(hand_ ? &*hand_ : nullptr);
  const auto control = desk_.Look();
  json["control"] = {{"allowed", settings_.allows_control},
                     {"owner", control.owner == 0 ? Json() : Json(control.owner)},
                     {"target", control.target ? Json(*control.target) : Json()}};
  board_->Publish(fmt::format("id: {}\ndata: {}\n\n", ++number_,
                              json.dump(-1, ' ', false, Json::error_handler_t::replace)));
  published_();
}

}  // namespace korvane_tool
