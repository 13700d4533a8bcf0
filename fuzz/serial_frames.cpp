// What arrives on a serial port: any bytes and any frames, unasked, as the answers to any
// operation, and while an update runs.

#include "serial_hand.h"
#include "support/all_operations.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

/// Bytes as they are, or as the data of a frame with a good checksum.
Bytes Arriving(Input& input) {
  const std::uint8_t kind = input.Byte();
  if (kind < 0x40) return input.Block();
  const Bytes data = input.Block(63);
  UsbFrameBuilder frame(kId, kind < 0x60 ? 0xF2 : input.Byte());
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
  place.clock.on_sleep = [&](auto) {
    place.line.Read();
    if (!input.IsOver()) place.Receive(Arriving(input));
  };
  while (!input.IsOver()) {
    const std::size_t kind = input.Below(8);
    try {
      if (kind < 3) place.Receive(Arriving(input));
      if (kind >= 3 && kind < 7) input.Of(operations).call(place.hand);
      if (kind == 7) Update(place.hand, input.Flag());
    } catch (const std::exception&) {
      // How some operations refuse.
    }
  }
}
