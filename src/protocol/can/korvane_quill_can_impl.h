#pragma once

#include "korvane_quill.h"
#include "protocol/can/can_public_hand.h"

namespace talvera::korvane {

struct QuillRow {
  static constexpr Wording kWording = [] {
    Wording wording = kChineseWording;
    wording.bad_index = "[Error]: Invalid joint motor ID parameter ";
    wording.bad_index_range = ", valid range: 1~";
    wording.count_in_digits = true;
    return wording;
  }();

  static constexpr HandModel kModel = [] {
    HandModel model = CommonModel("KorvaneQuillCanImpl", Model::QUILL);
    model.wording = &kWording;
    model.max_values = model.motors;
    model.product_model_ends_at_nul = true;
    model.has_tcp_form = false;
    model.update_rules.wording = nullptr;
    model.update_rules.replies_from = ReplySenders::kOwnIdAndFamily;
    model.update_rules.repeated_restart = RepeatedRestart::kIgnored;
    model.update_rules.reports_refusal = model.update_rules.reports_no_reply = true;
    model.update_rules.always_clears_callback = true;
    return model;
  }();

  static void Prepare(KorvaneQuill& /*hand*/, std::uint8_t /*id*/, HandType /*type*/) {}
};

/// The KorvaneQuill over CAN FD: position readings by its row, and what only it has, calibration
/// and its own reading of the tactile sensors.
class KorvaneQuillCanImpl : public CanPublicHand<KorvaneQuill, QuillRow> {
 public:
  using CanPublicHand::CanPublicHand;

  void SetMinPositionCalibration() override;
  void SetMinPositionCalibration(std::uint8_t joint) override;
  void SetMaxPositionCalibration() override;
  void SetMaxPositionCalibration(std::uint8_t joint) override;

  TactileSensorData GetTactileSensorDataRaw(Finger finger) const override;
  std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const override;

 private:
  void Calibrate(std::uint8_t function, const char* end, std::uint8_t joint) const;
  void CalibrateJoint(std::uint8_t function, const char* end, std::uint8_t joint) const;
};

}  // namespace talvera::korvane
