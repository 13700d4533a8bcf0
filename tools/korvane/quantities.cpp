#include "quantities.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <thread>

namespace korvane_tool {
namespace {

using Touch = std::vector<talvera::korvane::TactileSensorData>;

/// What an operation for all motors returns, as numbers.
template <auto operation>
std::vector<double> Get(const KorvaneBase& hand) {
  const auto values = (hand.*operation)();
  return {values.begin(), values.end()};
}

Quantity Reported(Quantity quantity) {
  quantity.is_reported = true;
  return quantity;
}

Quantity ErrorWord(Quantity quantity) {
  quantity.is_error_word = true;
  return quantity;
}

}  // namespace

const std::vector<Quantity>& AllQuantities() {
  using Base = KorvaneBase;
  static const std::vector<Quantity> quantities{
      {"positions", "position", "", Per::MOTOR, Live::ALWAYS, Get<&Base::GetAllJointMotorPosi>},
      {"angles", "angle", "rad", Per::JOINT, Live::ALWAYS, Get<&Base::GetAllJointAngles>},
      {"velocities", "velocity", "", Per::MOTOR, Live::NEVER, Get<&Base::GetAllJointMotorVelo>},
      Reported(
          {"currents", "current", "", Per::MOTOR, Live::BY_TURNS, Get<&Base::GetAllCurrentReport>}),
      Reported({"temperatures", "temperature", "", Per::MOTOR, Live::BY_TURNS,
                Get<&Base::GetAllTemperatureReport>}),
      ErrorWord(
          {"errors", "errors", "", Per::MOTOR, Live::BY_TURNS, Get<&Base::GetAllErrorReport>}),
      {"control_modes", "mode", "", Per::MOTOR, Live::NEVER, Get<&Base::GetAllControlMode>},
      {"thresholds", "threshold", "", Per::MOTOR, Live::NEVER, Get<&Base::GetAllCurrentThreshold>},
  };
  return quantities;
}

const Quantity& QuantityNamed(const std::string& key) {
  std::string keys;
  for (const Quantity& quantity : AllQuantities()) {
    if (key == quantity.key) return quantity;
    keys += std::string(keys.empty() ? "" : ", ") + quantity.key;
  }
  throw ToolError(kUsage, fmt::format("nothing is called {}; there are {}", key, keys));
}

Outcome<std::vector<double>> Read(const OpenedHand& hand, const Quantity& quantity) {
  auto values = Checked(std::as_const(*hand.hand), quantity.get);
  if (!values) {
    Failure failure = values.failure();
    const bool awaits_report = hand.Info().tells_by_reports && quantity.is_reported &&
                               failure.kind == FailureKind::NO_REPLY;
    if (awaits_report) failure.kind = FailureKind::NOT_SUPPORTED;
    return failure;
  }
  const auto joints = talvera::korvane::JointsOf(hand.Info().model, hand.address.side).size();
  const auto wanted =
      quantity.per == Per::JOINT ? joints : static_cast<std::size_t>(hand.Info().positions);
  if (values->size() > wanted) values->resize(wanted);
  return values;
}

Reports::Reports(const OpenedHand& hand, int period) : hand_(hand) {
  if (period == 0) return;
  if (!hand.Info().tells_by_reports) {
    throw ToolError(
        kUsage, fmt::format("a {} is asked for its values; it needs no reports", hand.Info().name));
  }
  Need(SetPeriod(period));
  on_ = true;
}

Reports::~Reports() {
  if (on_) SetPeriod(0);
}

Outcome<void> Reports::SetPeriod(int period) const {
  const std::vector<unsigned short> periods(static_cast<std::size_t>(hand_.Info().positions),
                                            static_cast<unsigned short>(period));
  return Checked(*hand_, [&](KorvaneBase& h) {
    h.SetAllTemperReportPeriod(periods);
    h.SetAllCurrentReportPeriod(periods);
  });
}

bool Reports::AwaitFirst(const std::function<bool()>& is_over) const {
  if (!on_) return true;
  constexpr auto kLimit = std::chrono::seconds(2);
  const auto end = std::chrono::steady_clock::now() + kLimit;
  for (const Quantity& quantity : AllQuantities()) {
    while (quantity.is_reported && !Read(hand_, quantity)) {
      if (is_over()) return false;
      if (std::chrono::steady_clock::now() > end) {
        throw ToolError({FailureKind::NO_REPLY, "reports", "the hand sends no reports"});
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  return true;
}

std::vector<std::string> NamesOf(const Quantity& quantity, const OpenedHand& hand,
                                 std::size_t count) {
  const auto& joints = talvera::korvane::JointsOf(hand.Info().model, hand.address.side);
  std::vector<std::string> names;
  for (std::size_t i = 0; i < count; ++i) {
    const bool is_joint = quantity.per == Per::JOINT && i < joints.size();
    names.push_back(is_joint ? joints[i].name : std::to_string(i + 1));
  }
  return names;
}

std::vector<std::string> ErrorTexts(const std::vector<double>& words, LinkKind link) {
  std::vector<std::string> texts;
  texts.reserve(words.size());
  for (const double word : words) texts.push_back(ErrorNames(static_cast<unsigned>(word), link));
  return texts;
}

bool HasTouch(const OpenedHand& hand) { return !SensorsOf(*hand).empty(); }

Outcome<Touch> ReadTouch(const OpenedHand& hand) {
  return Checked(*hand, [&](const KorvaneBase& h) { return TouchOf(h, hand.address.link); });
}

}  // namespace korvane_tool
