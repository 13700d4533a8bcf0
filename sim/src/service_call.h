#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "korvane_sim/service_face.h"
#include "wire.h"

// Service commands on their way to their answers, inside of ServiceFace.

namespace talvera::korvane::sim {

inline constexpr std::uint8_t kUpload = 0x29;
inline constexpr int kVelocityMode = 5;
inline constexpr int kMaxPosition = 4096;
inline constexpr std::size_t kTenAxes = 10;  ///< For which some records have room in every hand.

inline void Append(Bytes& bytes, int value, std::size_t width) {
  for (std::size_t i = 0; i < width; ++i) {
    bytes.push_back(static_cast<std::uint8_t>(static_cast<unsigned>(value) >> 8 * i));
  }
}

inline void Append(Bytes& bytes, const Bytes& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

/// One command on its way to its answer. An answer without bytes is none.
struct Call {
  ServiceState& state;
  SimulatedHand& hand;
  ServiceLink link;
  std::uint8_t command;
  const Bytes& data;

  std::size_t AxisCount() const { return state.settings.axes.size(); }
  bool IsSerial() const { return link == ServiceLink::kSerial; }
  /// A CAN FD frame brings more bytes than the payload has, with the lengths that there are.
  bool Has(std::size_t size) const {
    return IsSerial() ? data.size() == size : data.size() >= size;
  }
  /// Whether it speaks of actual positions, which homing doesn't shift.
  bool IsActual() const { return command >= 0x16 && command <= 0x18; }
  int I16At(std::size_t at) const { return static_cast<std::int16_t>(LoadU16(data.data() + at)); }
};

/// What most commands answer.
inline Bytes Accepted(bool yes) { return {static_cast<std::uint8_t>(yes ? 1 : 0)}; }

template <class Row>
bool IsOn(const Row&, ServiceLink) {
  return true;
}

/// The answer of the row for that command, if the table has one.
template <class Rows>
std::optional<Bytes> AnswerFrom(const Rows& rows, const Call& call) {
  const auto* const row =
      std::find_if(std::begin(rows), std::end(rows), [&](const auto& candidate) {
        return candidate.command == call.command && IsOn(candidate, call.link);
      });
  if (row == std::end(rows)) return std::nullopt;
  return Carry(*row, call);
}

// Each of these knows some of the commands.

/// Those that read values of all axes.
std::optional<Bytes> AnswerReport(const Call& call);
/// Those that set up the hand or one of its axes.
std::optional<Bytes> AnswerSetting(const Call& call);
/// All others: motion, sensors, and what the hand tells about itself.
std::optional<Bytes> AnswerOperation(const Call& call);

/// One axis and where it stands, on the scale of the command.
Bytes PositionReply(const Call& call, std::size_t axis);
/// The answer to a motion of all axes.
Bytes StateOf(const Call& call);
/// What a hand uploads.
Bytes UploadOf(const SimulatedHand& hand, const ServiceState& state);

/// Takes the settings over that the motors have themselves, or hands them over.
void ReadMotors(ServiceSettings& settings, const SimulatedHand& hand);
void WriteMotors(const ServiceSettings& settings, SimulatedHand& hand);
/// Errors stay in the error word until they are cleared.
void Watch(ServiceSettings& settings, const SimulatedHand& hand);
/// The public protocol tells the same number.
void PublishSerialNumber(const ServiceSettings& settings, SimulatedHand& hand);

}  // namespace talvera::korvane::sim
