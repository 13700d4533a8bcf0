#include "touch.h"

#include <ibr7_tactile_sensor_1d.h>
#include <korvane_brisa.h>
#include <korvane_tessel.h>

#include <array>
#include <cstddef>
#include <iterator>
#include <utility>

namespace korvane_common {

namespace kv = talvera::korvane;
using kv::Finger;
using kv::IBR7TactileSensor1D;
using kv::KorvaneBase;
using kv::KorvaneBrisa;
using kv::KorvaneTessel;
using kv::LinkKind;

namespace {

constexpr std::size_t kFrameData = 62;  // bytes of touch in one frame

/// Replies of several frames reach a hand on SocketCAN and ZLG only.
bool CarriesArrays(LinkKind link) { return link == LinkKind::SOCKET_CAN || link == LinkKind::ZLG; }

}  // namespace

const char* FingerName(Finger finger) {
  constexpr std::array<const char*, 8> kNames = {"?",    "thumb",  "index", "middle",
                                                 "ring", "little", "palm",  "dorsum"};
  const auto index = static_cast<std::size_t>(finger);
  return index < kNames.size() ? kNames[index] : kNames[0];
}

std::vector<Finger> SensorsOf(const KorvaneBase& hand) {
  if (dynamic_cast<const KorvaneTessel*>(&hand) != nullptr) {
    return {Finger::THUMB, Finger::INDEX, Finger::MIDDLE, Finger::RING, Finger::LITTLE};
  }
  const auto* const arrays = dynamic_cast<const IBR7TactileSensor1D*>(&hand);
  return arrays == nullptr ? std::vector<Finger>() : arrays->GetSensorOrder();
}

std::vector<std::uint8_t> TouchOf(const KorvaneBase& hand, LinkKind link, Finger finger) {
  if (const auto* const tessel = dynamic_cast<const KorvaneTessel*>(&hand)) {
    const auto record = tessel->GetTactileSensor3DData(finger);
    return {std::begin(record.data), std::end(record.data)};
  }
  const auto* const brisa = dynamic_cast<const KorvaneBrisa*>(&hand);
  if (brisa != nullptr && !CarriesArrays(link)) return brisa->GetTactileSensorData(finger);
  const auto* const arrays = dynamic_cast<const IBR7TactileSensor1D*>(&hand);
  if (arrays == nullptr) return {};
  const bool fits = CarriesArrays(link) || arrays->GetSensorDataLength(finger) <= kFrameData;
  return fits ? arrays->GetTactileSensorDataRaw(finger).data : std::vector<std::uint8_t>();
}

std::vector<kv::TactileSensorData> TouchOf(const KorvaneBase& hand, LinkKind link) {
  const auto* const arrays = dynamic_cast<const IBR7TactileSensor1D*>(&hand);
  if (arrays != nullptr && CarriesArrays(link)) return arrays->GetAllTactileSensorDataRaw();
  if (const auto* const brisa = dynamic_cast<const KorvaneBrisa*>(&hand)) {
    return brisa->GetAllTactileSensorData();
  }
  std::vector<kv::TactileSensorData> sensors;
  for (const Finger finger : SensorsOf(hand)) {
    auto cells = TouchOf(hand, link, finger);
    if (!cells.empty()) sensors.push_back({finger, std::move(cells)});
  }
  return sensors;
}

}  // namespace korvane_common
