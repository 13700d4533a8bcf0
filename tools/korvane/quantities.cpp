#include "quantities.h"

#include <fmt/format.h>
#include <ibr7_tactile_sensor_1d.h>
#include <korvane_brisa.h>
#include <korvane_tessel.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <iterator>
#include <thread>

namespace korvane_tool {
namespace {

using talvera::korvane::Finger;
using talvera::korvane::IBR7TactileSensor1D;
using talvera::korvane::KorvaneBrisa;
using talvera::korvane::KorvaneTessel;
using talvera::korvane::TactileSensorData;
using Touch = std::vector<TactileSensorData>;

/// What an operation for all motors returns, as numbers.
template <auto operation>
std::vector<double> Get(const KorvaneBase& hand) {
  const auto values = (hand.*operation)();
  return {values.begin(), values.end()};
}

Touch ReadFingertips(const KorvaneTessel& hand) {
  Touch sensors;
  for (int number = 1; number <= 5; ++number) {
    const auto finger = static_cast<Finger>(number);
    const auto record = hand.GetTactileSensor3DData(finger);
    sensors.push_back({finger, {std::begin(record.data), std::end(record.data)}});
  }
  return sensors;
}

/// Replies of several frames reach a hand on SocketCAN and ZLG only.
bool CarriesArrays(LinkKind link) { return link == LinkKind::SOCKET_CAN || link == LinkKind::ZLG; }

/// Sensor by sensor, those whose array fits into one frame.
Touch ReadSmallArrays(const IBR7TactileSensor1D& hand) {
  constexpr std::size_t kFrameData = 62;
  Touch sensors;
  for (const Finger finger : hand.GetSensorOrder()) {
    if (hand.GetSensorDataLength(finger) <= kFrameData)
      sensors.push_back(hand.GetTactileSensorDataRaw(finger));
  }
  return sensors;
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
        throw ToolError({FailureKind::NO_REPLY, "reports", "the hand sends no reports", 0});
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

bool HasTouch(const OpenedHand& hand) {
  return dynamic_cast<const KorvaneTessel*>(hand.hand.get()) != nullptr ||
         dynamic_cast<const IBR7TactileSensor1D*>(hand.hand.get()) != nullptr;
}

Outcome<Touch> ReadTouch(const OpenedHand& hand) {
  return Checked(*hand, [&](const KorvaneBase& h) -> Touch {
    if (const auto* const tessel = dynamic_cast<const KorvaneTessel*>(&h)) {
      return ReadFingertips(*tessel);
    }
    const auto* const brisa = dynamic_cast<const KorvaneBrisa*>(&h);
    if (brisa != nullptr && !CarriesArrays(hand.address.link)) {
      return brisa->GetAllTactileSensorData();
    }
    const auto* const sensors = dynamic_cast<const IBR7TactileSensor1D*>(&h);
    if (sensors == nullptr) return {};
    return CarriesArrays(hand.address.link) ? sensors->GetAllTactileSensorDataRaw()
                                            : ReadSmallArrays(*sensors);
  });
}

const char* NameOf(Finger finger) {
  constexpr std::array<const char*, 8> kNames = {"?",    "thumb",  "index", "middle",
                                                 "ring", "little", "palm",  "dorsum"};
  const auto index = static_cast<std::size_t>(finger);
  return index < kNames.size() ? kNames[index] : kNames[0];
}

std::string ErrorNames(unsigned errors) {
  constexpr std::array<const char*, 5> kBits = {"stalled", "overheated", "overcurrent",
                                                "motor fault", "communication fault"};
  std::string names;
  for (unsigned bit = 0; bit < 16; ++bit) {
    if ((errors >> bit & 1U) == 0) continue;
    const std::string name = bit < kBits.size() ? kBits[bit] : fmt::format("bit {}", bit);
    names += (names.empty() ? "" : ", ") + name;
  }
  return names;
}

}  // namespace korvane_tool
