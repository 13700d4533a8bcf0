// What arrives on a serial port: any bytes and any frames, unasked, as the answers to any
// operation, and while an update runs.

#include "operations.h"
#include "serial_hand.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

/// Changes a byte of a hand's reply, its length or its command.
void Change(Input& input, sim::ServiceMessage& reply) {
  const std::size_t at = input.Byte();
  const std::uint8_t value = input.Byte();
  if (at < reply.data.size()) reply.data[at] = value;
  if (at >= 0x80 && at < 0xC0) reply.data.resize(value % 64);
  if (at >= 0xC0) reply.command = value;
}

/// What a hand answers to what was sent, as it is or changed; bytes as they come; or these as the
/// data of a frame with a good checksum: of an update, with the command of the last request,
/// without which it is no answer, or any.
Bytes Arriving(SerialHand& place, Input& input, const Bytes& sent, std::uint8_t asked) {
  const std::uint8_t kind = input.Byte();
  const auto change = [&](sim::ServiceMessage& reply) {
    if (kind >= 0xC0) Change(input, reply);
  };
  Bytes answers = place.end.OnSerial(sent, place.clock.Now(), change);
  if (kind >= 0xA0) return answers;
  if (kind < 0x40) return input.Block();
  const Bytes data = input.Block(63);
  const std::uint8_t command = kind < 0x50 ? 0xF2 : kind < 0x90 ? asked : input.Byte();
  UsbFrameBuilder frame(kId, command);
  frame.AddData(data.data(), data.size());
  const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
  return {frame.Data(), frame.Data() + size};
}

/// An update, or a step of one.
void StepOfUpdate(KorvaneBrisaSerialImpl& hand, std::uint8_t byte) {
  if ((byte & 2U) == 0) return UpdateSomehow(hand, byte);
  const std::size_t which = byte >> 2U & 7U;
  if (which == 0) hand.SendOtaUpgradeRequest(5000, 3);
  if (which == 1) hand.SendOtaPackage({});
  if (which == 2) hand.SendOtaFinish();
  if (which == 3) hand.SendOtaRestart();
  if (which == 4) hand.UpdateOtaValidationTypeFromVersion();
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
    if (!input.IsOver()) place.Receive(Arriving(place, input, sent, asked));
  };
  while (!input.IsOver()) {
    const std::size_t kind = input.Below(8);
    try {
      if (kind < 2) place.Receive(Arriving(place, input, {}, asked));
      if (kind == 2) place.end.hand.Firmware().AddFault(AnyUpdateFault(input));
      if (kind >= 3 && kind < 7) CallOneOf(operations, place.hand, input);
      if (kind == 7) StepOfUpdate(place.hand, input.Byte());
    } catch (const std::exception&) {
      // How some operations refuse.
    }
  }
}
