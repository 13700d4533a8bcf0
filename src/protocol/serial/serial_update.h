#pragma once

#include <array>
#include <atomic>
#include <string>

#include "protocol/serial/serial_link.h"
#include "update/update_progress.h"

namespace talvera::korvane {

/// Which checksum guards packets and update frames, by the number that a line tells.
inline constexpr std::uint8_t kXmodemValidation = 0;
inline constexpr std::uint8_t kModbusValidation = 1;
/// It isn't known yet; taken for CRC-16/MODBUS.
inline constexpr std::uint8_t kUnknownValidation = 255;

/// The one of a hand with that firmware.
std::uint8_t ValidationTypeOf(const Version& firmware);

/// What the two threads of an update over the serial link share. The receive thread only sets flags
/// and results; the caller's thread pumps the packets.
struct SerialUpdateState : UpdateProgress {
  std::atomic<std::uint8_t> ota_validation_type{kUnknownValidation};
  std::atomic<bool> ota_upgrade_acked{};
  std::atomic<bool> ota_package_acked{};
  std::atomic<bool> ota_finish_acked{};
  std::atomic<bool> ota_restart_acked{};
  std::atomic<std::uint32_t> ota_upgrade_result{};
  std::atomic<std::uint32_t> ota_package_result{};
  std::atomic<std::uint32_t> ota_finish_result{};
  std::atomic<std::uint32_t> ota_restart_result{};
};

/// The firmware update of a hand on a serial link. Unlike over CAN, one thread runs the whole
/// exchange, the checksum is found from the hand's version, and a port that disappears is reopened.
class SerialUpdate {
 public:
  SerialUpdate(SerialUpdateState& state, SerialLink& link, const Korvane& hand);

  /// The whole update. What the serial library throws while packets go out reaches the caller.
  void Run(const std::string& path, ProgressCallback callback);

  /// Takes an update reply, on the receive thread.
  void OnReply(const std::uint8_t* data, std::size_t size);

  // Each is false if the port took less than all, and throws what the serial library throws.
  bool SendUpgradeRequest(std::uint32_t size, std::uint16_t count);
  bool SendPackage(const FirmwarePacket& packet);
  bool SendFinish();
  bool SendRestart();
  void FindValidationType();

 private:
  bool Write(ServiceCommand command, const ServicePayload& payload, SerialFrameCrcType crc);
  SerialFrameCrcType Trailer() const;

  void Attempt(const std::string& path, OperationScope& operation);
  bool Load(const std::string& path, std::uint32_t& size);
  void Prepare();
  bool RequestUpgrade(std::uint32_t size);
  void RecordRefusedUpgrade();
  bool AttemptUpgrade(std::uint32_t size);
  bool AwaitUpgradeReply();
  bool ReconnectAfter(int attempt);
  void BeginTransmission();
  void SendFront();
  bool Transmit();
  bool OnAcknowledgment(bool& finished);
  bool ReportOrLogTransmissionEnd();
  bool Finish();
  bool AwaitFinish();
  bool Restart();
  void ReportOrLogFailure(FailureKind kind, int code, const std::string& line);
  void ReportOrLogFailureAndKeepCallback(FailureKind kind, int code, const std::string& line);

  SerialUpdateState& state_;
  SerialLink& link_;
  const Korvane& hand_;
};

}  // namespace talvera::korvane
