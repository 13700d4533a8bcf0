#pragma once

#include "hand/refuses_report_periods.h"
#include "hand/with_joint_angles.h"
#include "protocol/serial/serial_brisa.h"
#include "protocol/serial/serial_update.h"
#include "protocol/service/service_records.h"

namespace talvera::korvane {

/// The KorvaneBrisa on a USB or RS-485 serial link, with both of its interfaces.
///
/// The application's thread writes a frame and waits for any frame; the receive thread keeps what
/// each frame brings, and the application's thread then reads what is kept.
class KorvaneBrisaSerialImpl
    : public RefusesReportPeriods<WithJointAngles<SerialBrisa, BrisaKinematics>>,
      public SerialUpdateState {
 public:
  KorvaneBrisaSerialImpl(HandType hand_type, unsigned char device_id, const std::string& port,
                         int baud);
  ~KorvaneBrisaSerialImpl() override;

  // What every hand has
  VendorInfo GetVendorInfo() const override;
  DeviceInfo GetDeviceInfo() const override;
  void SetDeviceId(std::uint8_t new_id) override;
  void ShowDataDetails(bool on) const override;
  void SetRequestInterval(int ms) override;
  int GetRequestInterval() const override;
  void SetFrameRecvTimeout(int ms) override;
  int GetFrameRecvTimeout() const override;
  void SetFrameSendTimeout(int ms) override;
  int GetFrameSendTimeout() const override;
  void UpdateFirmware(const std::string& path, ProgressCallback callback) override;

  // Motors
  int SetJointMotorPosi(std::uint8_t index, short position) override;
  short GetJointMotorPosi(std::uint8_t index) const override;
  std::vector<short> SetAllJointMotorPosi(const std::vector<short>& positions) override;
  std::vector<short> GetAllJointMotorPosi() const override;
  void SetJointMotorVelo(std::uint8_t index, short velocity) override;
  short GetJointMotorVelo(std::uint8_t index) const override;
  void SetAllJointMotorVelo(const std::vector<short>& velocities) override;
  std::vector<short> GetAllJointMotorVelo() const override;
  void SetControlMode(std::uint8_t index, ControlMode mode) override;
  ControlMode GetControlMode(std::uint8_t index) const override;
  void SetAllControlMode(const std::vector<std::uint8_t>& modes) override;
  std::vector<std::uint8_t> GetAllControlMode() const override;
  void SetCurrentThreshold(std::uint8_t index, short threshold) override;
  short GetCurrentThreshold(std::uint8_t index) const override;
  void SetAllCurrentThreshold(const std::vector<short>& thresholds) override;
  std::vector<short> GetAllCurrentThreshold() const override;
  void MixCtrlJointMotor(const std::vector<MixCtrl>& targets) override;

  // Reports
  unsigned short GetErrorReport(std::uint8_t index) const override;
  std::vector<unsigned short> GetAllErrorReport() const override;
  unsigned short GetTemperatureReport(std::uint8_t index) const override;
  std::vector<unsigned short> GetAllTemperatureReport() const override;
  short GetCurrentReport(std::uint8_t index) const override;
  std::vector<short> GetAllCurrentReport() const override;
  /// The forces of all axes; empty on failure.
  std::vector<short> GetAllForceReport() const;

  // Touch
  std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorData() const override;
  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;

  // Service
  std::uint8_t GetPowerState() const override;
  std::uint16_t SetSingleAxisPos(std::uint8_t axis, std::uint16_t pos) override;
  std::uint16_t GetSingleAxisPos(std::uint8_t axis) const override;
  SetAllAxisPosResponse SetAllAxisPos(const std::vector<std::uint16_t>& positions) override;
  std::vector<std::uint16_t> GetAllAxisPos() const override;
  std::vector<std::uint16_t> GetAllAxisCurrent() const override;
  std::vector<std::uint16_t> GetAllAxisVelocity() const override;
  std::vector<std::uint8_t> GetAllAxisTemp() const override;
  std::uint16_t GetErrorCode() const override;
  std::vector<std::uint8_t> GetFingertipSensor(std::uint8_t sensor) const override;
  std::uint16_t SetSingleActualAxisPos(std::uint8_t axis, std::uint16_t pos) override;
  std::uint16_t GetSingleActualAxisPos(std::uint8_t axis) const override;
  std::vector<std::uint16_t> SetAllActualAxisPos(
      const std::vector<std::uint16_t>& positions) override;
  AxisLimitPos GetAxisLimitPos() const override;
  SetAllAxisPosResponse SetPosSpeedCurData(const std::vector<std::uint16_t>& pos,
                                           const std::vector<std::int16_t>& speed,
                                           const std::vector<std::uint8_t>& current) override;
  std::vector<std::uint8_t> GetFingerTactileForce() const override;
  std::uint8_t SetControlSource(std::uint8_t source) override;
  std::uint8_t GetControlSource() const override;
  ProductSerialNumber GetProductSerialNumber() const override;
  FwVersion GetFwVersion() const override;

  /// The steps of an update.
  void SendOtaUpgradeRequest(unsigned int size, unsigned short count);
  void SendOtaPackage(const std::array<char, 2048>& packet);
  void SendOtaFinish();
  void SendOtaRestart();
  void QueryOtaResult() {}
  void UpdateOtaValidationTypeFromVersion();
  FwVersion GetFwVersionInternal(bool no_crc) const;

  /// Takes a frame, on the receive thread.
  void OnProtocolData(std::uint8_t command, const std::uint8_t* data, std::size_t size);

  /// The port; null if it couldn't be opened.
  UsbSerialDevice* Device() const { return link_.device.get(); }

 private:
  /// The reply to a read of all axes, of which one is wanted; its failure is logged.
  std::optional<Bytes> ReadForAxis(const char* operation, ServiceCommand command, const char* what,
                                   std::uint8_t index) const;
  /// A mixed command: what isn't set in it is zero.
  void WriteTargets(const ServiceTargets& targets);

  SerialUpdate update_;
};

}  // namespace talvera::korvane
