#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "korvane_sim/export.h"
#include "korvane_sim/simulated_hand.h"

namespace talvera::korvane::sim {

/// A service command with its payload, or what the hand says to it.
struct ServiceMessage {
  std::uint8_t command = 0;
  std::vector<std::uint8_t> data;
};

/// What carries the commands. The codes are the same everywhere, a few payloads are not.
enum class ServiceLink : std::uint8_t { kSerial, kCan };

struct AxisSettings {
  int homing = 0;  ///< Where the scale of the axis begins, in actual positions.
  int lower = 0;   ///< Limits of commanded positions, on the scale of the axis.
  int upper = 0;
  int mode = 0;     ///< Run mode; 5 follows velocities, all others positions.
  int current = 0;  ///< Protective current, which a motion may override.
  int overload_torque = 1000;
  int overload_ms = 500;
  int protected_torque = 100;
  int min_torque = 0;
  int errors = 0;  ///< All that was wrong with it since they were cleared.
};

/// What SaveParam makes permanent.
struct ServiceSettings {
  int device_id = 1;
  int upload_ms = 0;  ///< Interval of unsolicited uploads, 0 for none.
  int side = 0;
  int temperature_threshold = 80;  ///< From there on an axis reports overheating.
  int control_source = 0;
  std::array<std::uint8_t, 19> serial_number{};
  std::vector<AxisSettings> axes;
};

struct ServiceState {
  ServiceSettings settings;
  ServiceSettings saved;
  bool powered = true;
};

/// Whether hands of that model have a serial port, and whether they take service commands over CAN.
KORVANE_SIM_EXPORT bool HasSerialPort(const ModelRow& model);
KORVANE_SIM_EXPORT bool HasServiceOnCan(const ModelRow& model);

/// The standard identifier of service commands and replies over CAN, of all hands alike. The first
/// data byte is the command.
inline constexpr std::uint32_t kServiceIdentifier = 9;

/// The checksum of update packets and update frames that a hand with that firmware expects on a
/// serial line. Only the first three numbers count: a hand tells no more than those.
KORVANE_SIM_EXPORT UpdateChecksum SerialChecksum(const std::array<std::uint8_t, 4>& version);

/// The service side of one hand: commands in, replies out, with the time given by the caller.
///
/// It keeps what the commands set up and works on the hand that it is given, always the same one,
/// which others may command and restart as well.
/// What makes no sense is ignored; a setting that the hand refuses is answered with a 0, and so is
/// an axis that it lacks. A plain value like the hand itself, and not thread-safe.
class KORVANE_SIM_EXPORT ServiceFace {
 public:
  using TimePoint = SimulatedHand::TimePoint;

  ServiceFace(const SimulatedHand& hand, ServiceLink link);

  /// The replies to a command that arrives at `now`.
  std::vector<ServiceMessage> Handle(SimulatedHand& hand, const ServiceMessage& request,
                                     TimePoint now);
  /// The same for a frame that has the service identifier.
  std::vector<Frame> Handle(SimulatedHand& hand, const Frame& request, TimePoint now);

  /// The unsolicited uploads that are due at `now`.
  std::vector<ServiceMessage> TakeDue(SimulatedHand& hand, TimePoint now);
  std::vector<Frame> TakeDueFrames(SimulatedHand& hand, TimePoint now);
  std::optional<TimePoint> NextEvent() const { return upload_due_; }

  /// Takes note of what happened to the hand: its errors, restarts, and values that others set.
  /// Handle and TakeDue begin with it.
  void Follow(SimulatedHand& hand, TimePoint now);

  /// An upload as it would be sent now.
  ServiceMessage Upload(const SimulatedHand& hand) const;

  /// Switches the hand off and on: it is silent for its restart time, its motors come back at rest,
  /// and settings that weren't saved are lost.
  void Restart(SimulatedHand& hand, TimePoint now);

  std::uint16_t DeviceId() const { return static_cast<std::uint16_t>(Settings().device_id); }
  const ServiceSettings& Settings() const { return state_.settings; }

 private:
  std::vector<ServiceMessage> HandleUpdate(SimulatedHand& hand, const ServiceMessage& request,
                                           TimePoint now);
  void Restore(SimulatedHand& hand);
  void ArmUploads(TimePoint now);

  ServiceLink link_;
  ServiceState state_;
  unsigned restarts_;  ///< Of the hand, as far as they are taken note of.
  int armed_ms_ = 0;   ///< The interval that `upload_due_` counts with.
  std::optional<TimePoint> upload_due_;
};

}  // namespace talvera::korvane::sim
