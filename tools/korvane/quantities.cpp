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

bool IsReported(const Quantity& quantity) {
  const std::string key = quantity.key;
  return key == "currents" || key == "temperatures";
}

}  // namespace

const std::vector<Quantity>& AllQuantities() {
  static const std::vector<Quantity> quantities{
      {"positions", "position", "", &Get<&KorvaneBase::GetAllJointMotorPosi>},
      {"angles", "angle", "rad", &Get<&KorvaneBase::GetAllJointAngles>},
      {"velocities", "velocity", "", &Get<&KorvaneBase::GetAllJointMotorVelo>},
      {"currents", "current", "", &Get<&KorvaneBase::GetAllCurrentReport>},
      {"temperatures", "temperature", "", &Get<&KorvaneBase::GetAllTemperatureReport>},
      {"errors", "errors", "", &Get<&KorvaneBase::GetAllErrorReport>},
      {"control_modes", "mode", "", &Get<&KorvaneBase::GetAllControlMode>},
      {"thresholds", "threshold", "", &Get<&KorvaneBase::GetAllCurrentThreshold>},
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
    const bool awaits_report = hand.Info().tells_by_reports && IsReported(quantity) &&
                               failure.kind == FailureKind::NO_REPLY;
    if (awaits_report) failure.kind = FailureKind::NOT_SUPPORTED;
    return failure;
  }
  const auto joints = talvera::korvane::JointsOf(hand.Info().model, hand.address.side).size();
  const auto wanted = std::string(quantity.key) == "angles"
                          ? joints
                          : static_cast<std::size_t>(hand.Info().positions);
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

void Reports::AwaitFirst() const {
  if (!on_) return;
  constexpr auto kLimit = std::chrono::seconds(2);
  const auto end = std::chrono::steady_clock::now() + kLimit;
  for (const char* const key : {"currents", "temperatures"}) {
    while (!Read(hand_, QuantityNamed(key))) {
      if (std::chrono::steady_clock::now() > end) {
        throw ToolError({FailureKind::NO_REPLY, "reports", "the hand sends no reports", 0});
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
}

std::vector<std::string> NamesOf(const Quantity& quantity, const OpenedHand& hand,
                                 std::size_t count) {
  const auto& joints = talvera::korvane::JointsOf(hand.Info().model, hand.address.side);
  std::vector<std::string> names;
  for (std::size_t i = 0; i < count; ++i) {
    const bool is_joint = std::string(quantity.key) == "angles" && i < joints.size();
    names.push_back(is_joint ? joints[i].name : std::to_string(i + 1));
  }
  return names;
}

bool HasTouch(const OpenedHand& hand) { return !SensorsOf(*hand).empty(); }

Outcome<Touch> ReadTouch(const OpenedHand& hand) {
  return Checked(*hand, [&](const KorvaneBase& h) { return TouchOf(h, hand.address.link); });
}

}  // namespace korvane_tool
