// Prints the tactile arrays of a hand, a line for each sensor and a character for each cell.
//
//   tactile_map can0:brisa:1 [READINGS]
//
// HCAN adapters and serial ports cut the whole arrays of a KorvaneBrisa: there its summaries are
// read.

#include <korvane_brisa.h>
#include <korvane_tessel.h>

#include <iterator>
#include <vector>

#include "example.h"

namespace {

namespace kv = talvera::korvane;
using examples::Explain;
using Sensors = std::vector<kv::TactileSensorData>;

/// By kv::Finger, from the thumb.
constexpr const char* kFingers[] = {"thumb", "index", "middle", "ring", "little", "palm", "dorsum"};

/// The three-axis sensors of a KorvaneTessel, whose bytes only its maker can read.
Sensors ReadFingertips(const kv::KorvaneTessel& hand) {
  Sensors sensors;
  for (int finger = 1; finger <= 5; ++finger) {
    const auto record = hand.GetTactileSensor3DData(static_cast<kv::Finger>(finger));
    sensors.push_back(
        {static_cast<kv::Finger>(finger), {std::begin(record.data), std::end(record.data)}});
  }
  return sensors;
}

/// No sensors at all of a model that has none.
Sensors Read(const kv::KorvaneBase& hand, bool whole_arrays) {
  if (const auto* const brisa = dynamic_cast<const kv::KorvaneBrisa*>(&hand)) {
    return whole_arrays ? brisa->GetAllTactileSensorDataRaw() : brisa->GetAllTactileSensorData();
  }
  if (const auto* const tessel = dynamic_cast<const kv::KorvaneTessel*>(&hand)) {
    return ReadFingertips(*tessel);
  }
  const auto* const arrays = dynamic_cast<const kv::IBR7TactileSensor1D*>(&hand);
  return arrays != nullptr ? arrays->GetAllTactileSensorDataRaw() : Sensors();
}

void Print(const kv::TactileSensorData& sensor) {
  constexpr char kShades[] = " .:-=+*#%@";
  std::printf("%-7s|", kFingers[static_cast<int>(sensor.finger) - 1]);
  for (const std::uint8_t cell : sensor.data) std::putchar(kShades[cell * 10 / 256]);
  std::printf("| %zu cells\n", sensor.data.size());
}

}  // namespace

int main(int argc, char** argv) {
  examples::Begin(argc, 1, "tactile_map ADDRESS [READINGS]");
  const auto address = kv::HandAddress::Parse(argv[1]);
  if (!address) return Explain(address.failure());
  const auto hand = examples::Open(argv[1]);
  if (!hand) return Explain(hand.failure());
  const bool whole =
      address->link == kv::LinkKind::SOCKET_CAN || address->link == kv::LinkKind::ZLG;
  for (int left = argc > 2 ? std::atoi(argv[2]) : 1; left > 0; --left) {
    const auto sensors = Checked(**hand, [&](const kv::KorvaneBase& h) { return Read(h, whole); });
    if (!sensors) return Explain(sensors.failure());
    if (sensors->empty()) std::printf("This hand has no tactile sensors.\n");
    for (const kv::TactileSensorData& sensor : *sensors) Print(sensor);
  }
  return EXIT_SUCCESS;
}
