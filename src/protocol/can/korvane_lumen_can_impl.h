#pragma once

#include "korvane_lumen.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

struct LumenRow {
  static constexpr UpdateWording kUpdateWording = [] {
    UpdateWording wording = kFullUpdateWording;
    wording.logs_replies = false;
    wording.retrying_silent_hand =
        "[WARN]: [UpdateFirmware] No OTA response from device (status=WAITING_RESPONSE, "
        "child_id=-1). Retrying... Check: device supports OTA, firmware compatible, CAN "
        "connection.";
    wording.no_reply =
        " Upgrade request failed after 10 retries: no valid response from device (device may not "
        "support OTA or firmware incompatible).";
    return wording;
  }();

  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneLumenCanImpl", Model::LUMEN);
    // Commands, and readings by which a program steers, overtake reports that wait.
    model.position.priority = model.velocity.priority = 1;
    model.control_mode.priority = model.threshold.priority = model.mixed_priority = 1;
    model.update_rules.wording = &kUpdateWording;
    model.update_rules.repeated_restart = RepeatedRestart::kIgnored;
    model.update_rules.reports_no_reply = true;
    model.update_rules.always_clears_callback = true;
    model.update_rules.result_query.any_answer_ends = true;
    model.update_rules.result_query.success =
        "[INFO][KorvaneLumenCanImpl] OTA upgrade result: success";
    model.update_rules.result_query.failure = "[ERROR][KorvaneLumenCanImpl] OTA upgrade result: ";
    return model;
  }();

  static void Prepare(KorvaneLumen& /*hand*/, std::uint8_t /*id*/, HandType /*type*/) {}
};

/// The KorvaneLumen over CAN FD: all by its row, but for what needs a solver.
class KorvaneLumenCanImpl
    : public RefusesReportPeriods<CanPublicMotorHand<KorvaneLumen, LumenRow>> {
 public:
  using RefusesReportPeriods::RefusesReportPeriods;

  std::vector<double> SetAllActiveJointAngles(const std::vector<double>& angles) override;
  std::vector<double> GetAllActiveJointAngles() const override;
  std::vector<double> GetAllJointAngles() const override;
  std::vector<double> GetAllJointPos(const std::vector<double>& active_angles) const override;
};

}  // namespace talvera::korvane
