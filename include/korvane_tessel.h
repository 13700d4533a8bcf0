#pragma once

#include <cstdint>
#include <memory>

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"
#include "korvane_tessel_solver.h"

namespace talvera::korvane {

/// The hand with twelve motors and five three-axis fingertip sensors.
///
/// It sends reports on its own, on the periods that SetTemperReportPeriod, SetCurrentReportPeriod
/// and SetErrorReportPeriod ask for. GetTemperatureReport, GetCurrentReport and their whole-hand
/// forms return the last report and ask nothing: 0 or nothing before the first one, and a value of
/// any age later. A single value is 0 too while the last report wasn't one of all twelve motors.
/// Faults are told in one line each, with every error report. On a bus with several hands of this
/// model the reports of each reach every object.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
class KORVANE_EXPORT KorvaneTessel : public KorvaneBase,
                                     public CanFactories<KorvaneTessel>,
                                     public CanBroadcasts<KorvaneTessel> {
 public:
  /// Makes the object one for that id and that side, with a new solver; nothing is sent. The
  /// factories do so. Not while another call runs.
  void Reset(std::uint8_t device_id, HandType hand);

  /// Moves the hand into gesture 0 to 3. Any other number is gesture 0, all joints at zero. Asks
  /// the hand.
  void SetHandGesture(int gesture) override;

  /// Reads the sensor of one fingertip, THUMB to LITTLE. Asks the hand. All zero on failure, and,
  /// with a line of its own and nothing sent, for any other `finger`.
  virtual TactileSensor3DData GetTactileSensor3DData(Finger finger) const = 0;

  ~KorvaneTessel() override;

  /// Null until Reset.
  std::unique_ptr<ts9::KorvaneTesselSolver> solver;
};

}  // namespace talvera::korvane
