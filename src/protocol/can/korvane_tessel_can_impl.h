#pragma once

#include "hand/with_joint_angles.h"
#include "korvane_tessel.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

struct TesselRow {
  static constexpr Wording kWording = [] {
    Wording wording;
    wording.bad_index = "[ERROR]: Invalid joint motor ID parameter ";
    wording.bad_index_range = ", valid range: 1~";
    wording.wrong_size =
        "[ERROR]: Invalid parameter, must match the number of active degrees of freedom: ";
    wording.wrong_size_end = ".";
    wording.too_many_mixed =
        "[ERROR]: Invalid parameter, position/velocity/torque control mode can send at most 8 "
        "joint target information at once.";
    wording.set_id_failed = "[ERROR]: Failed to send device ID request";
    wording.device_info_failed = "[GetDeviceInfo] Failed: device_id=";
    wording.broadcast_prefix = "[ERROR]: ";
    wording.mixed_count_in_digits = false;
    wording.failure_names_motor = false;
    return wording;
  }();

  static constexpr UpdateWording kUpdateWording = [] {
    UpdateWording wording;
    wording.restarting_first =
        "[INFO][KorvaneTesselCanImpl][UpdateFirmware] Received restart response (0x04), waiting "
        "for restart...";
    wording.retrying =
        "[WARN][KorvaneTesselCanImpl][UpdateFirmware] Upgrade request no response (status=";
    wording.no_reply = " Upgrade request failed after 10 retries";
    wording.completed =
        "[INFO][KorvaneTesselCanImpl][UpdateFirmware] OTA upgrade process completed [OK]";
    wording.not_reconnected =
        "[WARN][KorvaneTesselCanImpl][UpdateFirmware] Could not reconnect after restart, OTA "
        "completed (manual verification may be needed)";
    wording.late_result = "[INFO][KorvaneTesselCanImpl] OTA upgrade completed";
    return wording;
  }();

  // Which writes wait for the hand's reply follows no rule: its firmware answers just these.
  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneTesselCanImpl", Model::TESSEL);
    model.wording = &kWording;
    model.position.bad_index = model.velocity.bad_index = model.threshold.bad_index = 0;
    model.temperature.bad_index = model.current.bad_index = 0;
    model.position.set_all_length = kMaxPayload;
    model.velocity.set_way = model.velocity.set_all_way = Way::kSendsOnly;
    model.velocity.send_failed = "[ERROR]: Failed to send velocity request";
    model.control_mode.send_failed = "[ERROR]: Failed to send control mode request";
    model.control_modes_by_length = true;
    model.sends_reports = true;
    model.temperature.from_reports = model.current.from_reports = true;
    model.error.set_way = Way::kSendsOnly;
    model.temperature.set_all_way = Way::kSendsOnly;
    model.current.set_way = model.current.set_all_way = Way::kSendsOnly;
    model.binds_without_link = true;
    model.update_rules.wording = &kUpdateWording;
    model.update_rules.repeated_restart = RepeatedRestart::kTaken;
    model.update_rules.first_packet_on_acceptance = true;
    model.update_rules.replies_report_errors = false;
    model.update_rules.counts_acknowledged = true;
    model.update_rules.reports_refusal = model.update_rules.reports_no_reply = true;
    model.update_rules.always_clears_callback = true;
    model.update_rules.result_query.pause = std::chrono::milliseconds(0);
    model.update_rules.result_query.any_answer_ends = true;
    model.update_rules.result_query.success =
        "[INFO][KorvaneTesselCanImpl] OTA upgrade result: success";
    model.update_rules.result_query.failure = "[ERROR][KorvaneTesselCanImpl] OTA upgrade result: ";
    return model;
  }();

  static void Prepare(KorvaneTessel& hand, std::uint8_t id, HandType type) { hand.Reset(id, type); }
};

/// The KorvaneTessel over CAN FD: the common operations by its row, and what only it has, report
/// periods and three-axis sensors.
class KorvaneTesselCanImpl
    : public WithJointAngles<CanPublicMotorHand<KorvaneTessel, TesselRow>, TesselKinematics> {
 public:
  using WithJointAngles::WithJointAngles;

  void SetErrorReportPeriod(std::uint8_t index, unsigned short period) override;
  void SetAllErrorReportPeriod(std::vector<unsigned short> periods) override;
  void SetTemperReportPeriod(std::uint8_t index, unsigned short period) override;
  void SetAllTemperReportPeriod(std::vector<unsigned short> periods) override;
  void SetCurrentReportPeriod(std::uint8_t index, unsigned short period) override;
  void SetAllCurrentReportPeriod(std::vector<unsigned short> periods) override;

  TactileSensor3DData GetTactileSensor3DData(Finger finger) const override;

 private:
  void WritePeriods(const MotorQuantity& quantity, const std::vector<unsigned short>& periods);
};

}  // namespace talvera::korvane
