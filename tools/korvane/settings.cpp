#include "settings.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <nlohmann/json.hpp>

#include "common/whole_number.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using kv::PrivateKorvane;

constexpr int kMaxU8 = 255;
constexpr int kMaxU16 = 65535;
constexpr int kMaxPosition = 4096;
constexpr int kMaxCurrent = 3250;
/// Speeds of a Lumen are ten, too.
constexpr std::size_t kSpeeds = 10;

/// A setter of the whole hand.
template <auto kSet, class Value>
bool SetHand(const ServiceHand& hand, int, int value) {
  return (hand.Service().*kSet)(static_cast<Value>(value));
}

/// A setter of one axis.
template <auto kSet, class Value>
bool SetAxis(const ServiceHand& hand, int axis, int value) {
  return (hand.Service().*kSet)(static_cast<std::uint8_t>(axis), static_cast<Value>(value));
}

template <auto kGet>
Values GetHand(const ServiceHand& hand) {
  return {(hand.Service().*kGet)()};
}

template <auto kList>
Values GetLimits(const ServiceHand& hand) {
  const auto limits = hand.Service().GetAxisLimitPos();
  return {(limits.*kList).begin(), (limits.*kList).end()};
}

bool SetControlSource(const ServiceHand& hand, int, int value) {
  // Serial: the result tells only that the hand answered; it is read back anyway.
  const int in_force = hand.Service().SetControlSource(static_cast<std::uint8_t>(value));
  return IsOnSerial(hand) || in_force == value;
}

bool SetSpeed(const ServiceHand& hand, int, int value) {
  return hand.Service().SetAllRunSpeed(
      std::vector<std::int16_t>(kSpeeds, static_cast<std::int16_t>(value)));
}

template <class List>
Values ToValues(const List& list) {
  return {list.begin(), list.end()};
}

using U8 = std::uint8_t;
using U16 = std::uint16_t;

// What few of the settings have in common.

/// A state rather than a setting.
constexpr Setting NotInFiles(Setting setting) {
  setting.kept_in_files = false;
  return setting;
}

constexpr Setting LowerLimit(Setting limit) {
  limit.widens = -1;
  return limit;
}

constexpr Setting UpperLimit(Setting limit) {
  limit.widens = 1;
  return limit;
}

constexpr Setting OneByteOnCan(Setting setting) {
  setting.max_on_can = kMaxU8;
  return setting;
}

constexpr Setting ByPublicProtocol(Setting setting) {
  setting.by_public_protocol = true;
  return setting;
}

constexpr Setting kSettings[] = {
    NotInFiles({"power", "power of the motors", Scope::HAND, 0, kMaxU8, "",
                SetHand<&PrivateKorvane::SetPowerState, U8>,
                GetHand<&PrivateKorvane::GetPowerState>}),
    {"control_source", "where commands are taken from", Scope::HAND, 0, 1, "", SetControlSource,
     GetHand<&PrivateKorvane::GetControlSource>},
    {"side", "which of the two hands it is", Scope::HAND, 0, 1, "",
     SetHand<&PrivateKorvane::SetRightOrLeft, U8>},
    {"temperature_threshold", "temperature of protection", Scope::HAND, 0, kMaxU8, "",
     SetHand<&PrivateKorvane::SetTemperatureThreshold, U8>},
    {"upload_interval", "how often the hand uploads on its own", Scope::HAND, 0, kMaxU16, "",
     SetHand<&PrivateKorvane::SetAllAxisCvpUploadInterval, U16>},
    {"homing", "homing offset", Scope::AXIS, -4095, 4095, "",
     SetAxis<&PrivateKorvane::SetAxisHoming, std::int16_t>},
    LowerLimit({"lower_limit", "lower limit", Scope::AXIS, 0, kMaxPosition, "positions",
                SetAxis<&PrivateKorvane::SetAxisMinPos, U16>, GetLimits<&kv::AxisLimitPos::lower>}),
    UpperLimit({"upper_limit", "upper limit", Scope::AXIS, 0, kMaxPosition, "positions",
                SetAxis<&PrivateKorvane::SetAxisMaxPos, U16>, GetLimits<&kv::AxisLimitPos::upper>}),
    {"run_mode", "run mode", Scope::AXIS, 0, kMaxU8, "", SetAxis<&PrivateKorvane::SetRunMode, U8>},
    {"run_speed", "speed of all axes; in velocity mode they move", Scope::ALL_AXES, -32768, 32767,
     "", SetSpeed},
    OneByteOnCan({"overload_torque", "torque of an overload", Scope::AXIS, 0, 1000, "",
                  SetAxis<&PrivateKorvane::SetOverloadTorque, U16>}),
    OneByteOnCan({"overload_time", "how long an overload may last", Scope::AXIS, 0, kMaxU16, "",
                  SetAxis<&PrivateKorvane::SetOverloadProtectionTime, U16>}),
    {"protected_torque", "torque under protection", Scope::AXIS, 0, 100, "",
     SetAxis<&PrivateKorvane::SetProtectedTorque, U8>},
    {"min_torque", "least torque", Scope::AXIS, 0, kMaxU8, "",
     SetAxis<&PrivateKorvane::SetMinTorque, U8>},
    {"protective_current", "protective current", Scope::AXIS, 0, kMaxCurrent, "",
     SetAxis<&PrivateKorvane::SetProtectiveCurrent, U16>},
    ByPublicProtocol(
        {"control_mode", "control mode, by the public protocol", Scope::AXIS, 0, 7, "",
         [](const ServiceHand& hand, int axis, int value) {
           hand.Public().SetControlMode(static_cast<U8>(axis), static_cast<kv::ControlMode>(value));
           return true;
         },
         [](const ServiceHand& hand) { return ToValues(hand.Public().GetAllControlMode()); }}),
    ByPublicProtocol(
        {"current_threshold", "threshold of the current, by the public protocol", Scope::AXIS, 0,
         kMaxCurrent, "",
         [](const ServiceHand& hand, int axis, int value) {
           hand.Public().SetCurrentThreshold(static_cast<U8>(axis), static_cast<short>(value));
           return true;
         },
         [](const ServiceHand& hand) { return ToValues(hand.Public().GetAllCurrentThreshold()); }}),
};

/// The object whose failures count.
KorvaneBase& SpeakerOf(const ServiceHand& hand, const Setting& setting) {
  return setting.by_public_protocol ? hand.Public() : *hand.hand;
}

bool Widens(const Change& change) { return (change.to - change.from) * change.setting->widens > 0; }

}  // namespace

const std::vector<Setting>& AllSettings() {
  static const std::vector<Setting> settings(std::begin(kSettings), std::end(kSettings));
  return settings;
}

const Setting& SettingNamed(const std::string& key) {
  std::string keys;
  for (const Setting& setting : AllSettings()) {
    if (key == setting.key) return setting;
    keys += (keys.empty() ? "" : ", ") + std::string(setting.key);
  }
  throw ToolError(kUsage, fmt::format("no setting \"{}\"; there are {}", key, keys));
}

bool Has(Model model, const Setting& setting) {
  return !setting.by_public_protocol || model == Model::BRISA;
}

bool CanRead(const HandAddress& where, const Setting& setting) {
  if (setting.read == nullptr || !Has(*where.model, setting)) return false;
  return !setting.by_public_protocol || where.link != LinkKind::SERIAL;
}

int CountOf(Model model, const Setting& setting) {
  return setting.scope == Scope::HAND ? 1 : kv::InfoOf(model).positions;
}

std::string ProblemOf(const HandAddress& where, const Setting& setting, const std::string& value) {
  const bool is_cut = where.link != LinkKind::SERIAL && setting.max_on_can != 0;
  const int max = is_cut ? setting.max_on_can : setting.max;
  if (WholeNumberIn(value, setting.min, max)) return "";
  return fmt::format("{} is {} to {}{}, not {}", setting.key, setting.min, max,
                     is_cut ? " over CAN, which carries one byte of it" : "", value);
}

Outcome<Values> Read(const ServiceHand& hand, const Setting& setting) {
  auto values =
      Checked(SpeakerOf(hand, setting), [&](const KorvaneBase&) { return setting.read(hand); });
  if (!values) return values;
  const auto count = static_cast<std::size_t>(CountOf(*hand.address.model, setting));
  if (values->size() < count) {
    return Failure{
        FailureKind::BAD_REPLY, "",
        fmt::format("the hand told {} of {} values of {}", values->size(), count, setting.key)};
  }
  values->resize(count);  // behind them the bus pads
  return values;
}

Outcome<void> Write(const ServiceHand& hand, const Setting& setting, int axis, int value) {
  const auto taken = Checked(SpeakerOf(hand, setting),
                             [&](const KorvaneBase&) { return setting.write(hand, axis, value); });
  if (!taken) return taken.failure();
  if (*taken) return {};
  return Failure{FailureKind::REFUSED, "",
                 fmt::format("the hand refused {} for {}", value, setting.key)};
}

void Save(const ServiceHand& hand) {
  const bool saved = Need(CheckedService(hand, [](PrivateKorvane& s) { return s.SaveParam(); }));
  if (!saved) throw ToolError(kFailed, "the hand refused to save its settings");
}

std::string NameOf(const Change& change) {
  if (change.axis == 0) return change.setting->key;
  return fmt::format("{} of axis {}", change.setting->key, change.axis);
}

Json ToJson(const Change& change) {
  Json json{{"key", change.setting->key}};
  json["axis"] = change.axis == 0 ? Json() : Json(change.axis);
  json["from"] = change.from;
  json["to"] = change.to;
  return json;
}

std::vector<Change> Differences(const ServiceHand& hand, const std::vector<WantedSetting>& wanted) {
  std::vector<Change> changes;
  for (const auto& [setting, values] : wanted) {
    const Values now = Need(Read(hand, *setting));
    for (std::size_t i = 0; i < values.size(); ++i) {
      const int axis = setting->scope == Scope::HAND ? 0 : static_cast<int>(i) + 1;
      if (now[i] != values[i]) changes.push_back({setting, axis, now[i], values[i]});
    }
  }
  std::stable_partition(changes.begin(), changes.end(), Widens);
  return changes;
}

}  // namespace korvane_tool
