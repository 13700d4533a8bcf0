#pragma once

#include <array>

#include "hand/hand_members.h"
#include "hand/with_joint_angles.h"
#include "private_korvane_brisa.h"
#include "protocol/service/can_service_hand.h"

namespace talvera::korvane {

struct BrisaServiceRow {
  static constexpr ServiceModel kModel = [] {
    ServiceModel model{};
    model.class_name = "KorvaneBrisaCanPrivateImpl";
    model.model = Model::BRISA;
    model.motors = Known(model.model).motors;
    model.most_limits = kMostServiceAxes;
    model.positions_reply = 20;
    model.has_update = true;
    return model;
  }();
  static constexpr std::uint8_t kHomingAxes = kModel.motors;
  /// Over CAN a value above 255 arrives cut to its low byte.
  static constexpr bool kOverloadInTwoBytes = false;

  static void Prepare(KorvaneBrisa& hand, std::uint8_t /*id*/, HandType type) {
    BrisaKinematics::MakeSolver(hand, type);
  }
};

/// The KorvaneBrisa in the service protocol over CAN, with both of its interfaces. One object of it
/// at a time on a bus.
class KorvaneBrisaCanPrivateImpl
    : public WithJointAngles<CanServiceHand<PrivateKorvaneBrisa, BrisaServiceRow>,
                             BrisaKinematics> {
 public:
  using WithJointAngles::WithJointAngles;

  void UpdateFirmware(const std::string& path, ProgressCallback callback) override;

  // Motors
  void SetControlMode(std::uint8_t index, ControlMode mode) override;
  ControlMode GetControlMode(std::uint8_t index) const override;
  void SetAllControlMode(const std::vector<std::uint8_t>& modes) override;
  std::vector<std::uint8_t> GetAllControlMode() const override;
  void SetCurrentThreshold(std::uint8_t index, short threshold) override;
  short GetCurrentThreshold(std::uint8_t index) const override;
  void SetAllCurrentThreshold(const std::vector<short>& thresholds) override;
  std::vector<short> GetAllCurrentThreshold() const override;
  void MixCtrlJointMotor(const std::vector<MixCtrl>& targets) override;

  // Touch. The protocol has no single summaries and no raw arrays: nothing is asked for them.
  std::vector<std::uint8_t> GetFingertipSensor(std::uint8_t sensor) const override;
  std::vector<TactileSensorData> GetAllTactileSensorData() const override;
  std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const override;
  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;

  /// The steps of an update. The first waits for the hand and throws std::runtime_error.
  CanfdFrame SendOtaRequestSynch(std::uint8_t child, unsigned int size, unsigned short count);
  void SendOtaTransmitAndData(const std::array<char, 2048>& packet, unsigned short index);
  void SendOtaFinish();
  void SendOtaRestart();
  /// Takes a reply, on the receive thread.
  void OtaOnResponse(std::uint8_t child, std::uint32_t status);

 private:
  void LogNotFullySupported(const char* name) const;
};

}  // namespace talvera::korvane
