#pragma once

#include <optional>
#include <vector>

#include "link/observable_link.h"
#include "private_korvane_brisa.h"
#include "protocol/serial/serial_link.h"
#include "protocol/service/with_service_readings.h"
#include "protocol/service/with_service_settings.h"

namespace talvera::korvane {

/// A KorvaneBrisa whose failures are recorded.
struct ObservableBrisa : PrivateKorvaneBrisa, ObservableHand {};

/// What its service settings are on a serial link.
struct SerialBrisaSettings {
  static constexpr std::uint8_t kHomingAxes = kServiceAxes;
  static constexpr bool kOverloadInTwoBytes = true;
};

/// What the operations of a KorvaneBrisa on a serial link are built from: how it sends settings,
/// reads, and what it logs when it refuses.
class SerialBrisa
    : public WithServiceReadings<WithServiceSettings<ObservableBrisa, SerialBrisaSettings>> {
 public:
  SerialBrisa() : link_(*this) {}

  const HandDiagnostics& Diagnostics() const override { return link_.diagnostics; }
  ObservableLink* Observable() const override;

 protected:
  using Bytes = ReplyCache::Bytes;
  using Words = std::vector<std::uint16_t>;

  /// What a position or a temperature that couldn't be read is.
  static constexpr std::uint16_t kNoReading = 0xFFFF;

  static bool IsAxis(std::uint8_t index) { return index >= 1 && index <= kServiceAxes; }
  /// False, after a line, for an index that no axis has. `what` is how the line calls it.
  bool CheckIndex(std::uint8_t index, const char* what = "joint motor") const;
  /// False, after a line, unless there is one value for each axis.
  bool CheckJointCount(std::size_t count) const;
  void RefusePeriods(const char* operation) const;
  /// Logs that the link has no such operation, and records it.
  void LogNotSupported(const std::string& line) const;
  /// "get motor current failed, joint_motor_index: 3"
  void LogReadFailed(const char* what, std::uint8_t index) const;

  /// Whatever frame comes in time counts as consent.
  bool Execute(const char* operation, ServiceCommand command,
               const ServicePayload& payload) override;

  /// The reply to a read of a service operation, which is silent while the link isn't open.
  std::optional<Bytes> ReadService(const char* operation, ServiceCommand command,
                                   const ServicePayload& payload = {}) const;
  /// One value of two bytes for each axis; empty on failure.
  Words ReadServiceWords(const char* operation, ServiceCommand command,
                         const ServicePayload& payload = {}) const;
  Words ReadWords(const ServiceReading& reading) const override;
  Bytes ReadBytes(const ServiceReading& reading) const override;

  /// The position of one axis. A bad index or no reply is logged.
  std::optional<std::uint16_t> ReadPosition(const char* operation, std::uint8_t index) const;

  SerialLink link_;
};

}  // namespace talvera::korvane
