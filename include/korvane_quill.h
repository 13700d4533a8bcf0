#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "ibr7_tactile_sensor_1d.h"
#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The data-collection hand: ten joint position readings and six one-axis tactile sensors, THUMB to
/// PALM, and no motors. GetJointMotorPosi and GetAllJointMotorPosi read the joints; what would
/// command a motor keeps its default and sends nothing.
///
/// GetTactileSensorDataRaw writes one line, sends nothing and returns a record without data for any
/// other `finger`; GetAllTactileSensorDataRaw leaves out the first sensor whose reading is
/// incomplete and those after it.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
class KORVANE_EXPORT KorvaneQuill : public KorvaneBase,
                                    public IBR7TactileSensor1D,
                                    public CanFactories<KorvaneQuill> {
 public:
  std::size_t GetSensorDataLength(Finger finger) const override;
  const std::vector<Finger>& GetSensorOrder() const override;

  /// Tells the device that all joints, or joint `joint` (1 to 10), stand at the lower end of their
  /// range now. Sends one frame and waits for no answer. One line on failure, and for a joint that
  /// doesn't exist.
  virtual void SetMinPositionCalibration() = 0;
  virtual void SetMinPositionCalibration(std::uint8_t joint) = 0;

  /// The same for the upper end.
  virtual void SetMaxPositionCalibration() = 0;
  virtual void SetMaxPositionCalibration(std::uint8_t joint) = 0;

  ~KorvaneQuill() override;
};

}  // namespace talvera::korvane
