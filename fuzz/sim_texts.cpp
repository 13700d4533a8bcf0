// What the simulator is told by texts and what it tells its clients: all that is none is refused
// with a text.

#include <stdexcept>

#include "socket_protocol.h"
#include "specs.h"
#include "support.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

void Parse(std::size_t kind, const std::string& text) {
  if (kind == 0) {
    const sim::HandSpec hand = sim::ParseHand(text);
    Require(hand.model != nullptr && hand.device_id >= 1 && hand.device_id <= 127);
  } else if (kind == 1) {
    sim::ParseVersion(text);
  } else if (kind == 2) {
    const sim::UpdateFault fault = sim::ParseUpdateFault(sim::UpdateFault::Kind::kStatus, text);
    Require(fault.status <= 999999999);
  } else if (kind == 3) {
    sim::ParseUpdateFault(sim::UpdateFault::Kind::kLose, text);
  } else if (const auto info = sim::DecodeInfo(text)) {
    const auto again = sim::DecodeInfo(sim::EncodeInfo(*info));
    Require(again && again->serial_number == info->serial_number &&
            again->hardware_type == info->hardware_type && again->clock_hz == info->clock_hz);
  }
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const std::size_t kind = input.Below(5);
  try {
    Parse(kind, input.Rest());
  } catch (const std::invalid_argument& error) {
    Require(error.what() != std::string());
  }
}
