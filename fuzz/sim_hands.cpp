// What hosts send to simulated hands: frames on CAN, and bytes and frames on a serial line.

#include "simulated_end.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

void Check(const std::vector<sim::Frame>& frames) {
  for (const sim::Frame& frame : frames) Require(frame.len <= frame.data.size());
}

/// A frame of some function of the hand or of its service interface, or any.
void OnCan(SimulatedEnd& end, Input& input, Clock::TimePoint now) {
  const std::uint8_t kind = input.Byte();
  const std::uint32_t part = input.Byte() & 0x1FU;
  const std::uint32_t known = kId | part << 24 | (kind & 0x80U) |
                              std::uint32_t{end.hand.Model().family} << 8 |
                              std::uint32_t{input.Byte()} << 16;
  const std::uint32_t ids[] = {known, known, sim::kServiceIdentifier, input.Take<std::uint32_t>()};
  const Bytes data = input.Block(64);
  sim::Frame frame{
      ids[kind % std::size(ids)] & 0x1FFFFFFF, static_cast<std::uint8_t>(data.size()), {}};
  std::copy(data.begin(), data.end(), frame.data.begin());
  Check(end.OnCan(frame, now));
  Check(end.hand.TakeDue(now));
  if (end.has_service) Check(end.face.TakeDueFrames(end.hand, now));
}

void OnSerial(SimulatedEnd& end, Input& input, Clock::TimePoint now) {
  const std::uint8_t kind = input.Byte();
  Bytes bytes = input.Block(120);
  if (kind % 4 != 0) {
    constexpr sim::SerialTrailer kTrailers[] = {
        sim::SerialTrailer::kXmodem, sim::SerialTrailer::kNone, sim::SerialTrailer::kModbus};
    bytes = sim::BuildSerialFrame({kId, {input.Byte(), bytes}, kTrailers[kind % 3]});
  }
  end.OnSerial(bytes, now);
  for (const auto& upload : end.face.TakeDue(end.hand, now)) Require(upload.data.size() <= 120);
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const std::uint8_t kind = input.Byte();
  const bool serial = (kind & 1U) != 0;
  SimulatedEnd end(serial ? sim::kBrisa : *input.Of(sim::kModels),
                   serial ? sim::ServiceLink::kSerial : sim::ServiceLink::kCan);
  if ((kind & 2U) != 0) end.hand.Firmware().AddFault(AnyUpdateFault(input));
  Clock::TimePoint now{};
  while (!input.IsOver()) {
    now += std::chrono::milliseconds(input.Take<std::uint16_t>());
    if (serial) {
      OnSerial(end, input, now);
    } else {
      OnCan(end, input, now);
    }
  }
}
