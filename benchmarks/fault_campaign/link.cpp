#include "fault_campaign/link.h"

#include "can_socket.h"
#include "fault_campaign/stamp.h"

namespace talvera::korvane::bench {

const std::map<std::string, Link>& Links() {
  static const std::vector<unsigned> on_can{kPosition, kVelocity, kThreshold, kAllPositions};
  static const std::map<std::string, Link> links{
      {"socketcan",
       {PairOfSockets,
        [](Line&) { return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, "pair"); },
        on_can}},
      {"kernel",
       {KernelBus,
        [](Line&) {
          return KorvaneBrisa::createHandSocketCan(HandType::RIGHT, kId, InterfaceName());
        },
        on_can}},
      {"zlg",
       {AdapterBus,
        [](Line&) { return KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, kId, 0, 0); },
        on_can}},
      {"hcan",
       {AdapterBus,
        [](Line&) { return KorvaneBrisa::createHandByHcan(HandType::RIGHT, kId, 0, 0); }, on_can}},
      {"serial",
       {SerialPort,
        [](Line& line) {
          return KorvaneBrisa::createHandByUsb(HandType::RIGHT, kId, line.Path(), 4000000);
        },
        {kPosition, kAllPositions, kAllCurrents}}}};
  return links;
}

Values Ask(KorvaneBrisa& hand, unsigned kind, unsigned index) {
  const auto motor = static_cast<std::uint8_t>(index);
  switch (kind) {
    case kPosition:
      return {hand.GetJointMotorPosi(motor)};
    case kVelocity:
      return {hand.GetJointMotorVelo(motor)};
    case kThreshold:
      return {hand.GetCurrentThreshold(motor)};
    case kAllPositions:
      return hand.GetAllJointMotorPosi();
    default:
      return hand.GetAllCurrentReport();
  }
}

}  // namespace talvera::korvane::bench
