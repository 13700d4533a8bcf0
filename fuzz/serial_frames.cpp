// What arrives on a serial port: any bytes and any frames, unasked, as the answers to any
// operation, and while an update runs.

#include "operations.h"
#include "serial_hand.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

/// Bytes as they are, or as the data of a frame with a good checksum: of an update, with the
/// command of the last request, without which it is no answer, or any.
Bytes Arriving(Input& input, std::uint8_t asked) {
  const std::uint8_t kind = input.Byte();
  if (kind < 0x40) return input.Block();
  const Bytes data = input.Block(63);
  const std::uint8_t command = kind < 0x60 ? 0xF2 : kind < 0xE0 ? asked : input.Byte();
  UsbFrameBuilder frame(kId, command);
  frame.AddData(data.data(), data.size());
  const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
  return {frame.Data(), frame.Data() + size};
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  using test::operator+;
  static const auto operations =
      test::HandOperations(10) + test::TouchOperations() + test::ServiceOperations(10);
  SerialHand place;
  std::uint8_t asked = 0;
  place.clock.on_sleep = [&](auto) {
    const Bytes sent = place.line.Read();
    if (sent.size() > kUsbFrameCommand) asked = sent[kUsbFrameCommand];
    if (!input.IsOver()) place.Receive(Arriving(input, asked));
  };
  while (!input.IsOver()) {
    const std::size_t kind = input.Below(8);
    try {
      if (kind < 3) place.Receive(Arriving(input, asked));
      if (kind >= 3 && kind < 7) CallOneOf(operations, place.hand, input);
      if (kind == 7) Update(place.hand, input.Flag());
    } catch (const std::exception&) {
      // How some operations refuse.
    }
  }
}
