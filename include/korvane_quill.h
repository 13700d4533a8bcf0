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
///
/// Readings are taken to be 0 to 4096, as those of a KorvaneBrisa; the protocol doesn't tell. Nor
/// does it tell which reading belongs to which joint, and which end is open: bend one joint after
/// the other and look. SetMinPositionCalibration teaches the
/// device which pose it reads as the lower end.
///
/// What the operations return when they fail; KorvaneBase explains the words:
///
///     over CAN FD                                  bad          silent       waits
///     GetJointMotorPosi                            -1           0            yes
///     GetAllJointMotorPosi (1)                                  empty        yes
///     SetMinPositionCalibration,
///       SetMaxPositionCalibration                  line         none         no
///     GetTactileSensorDataRaw                      line,no data no data      yes
///     GetAllTactileSensorDataRaw                                empty (2)    yes
///     GetVendorInfo, GetDeviceInfo                              empty        yes
///     SetDeviceId                                               none         no
///     SetJointMotorPosi                                         always -1    -
///     all other operations of KorvaneBase          0, MODE_0, empty or none  -
///
/// 1. As many as the reply holds, at most 10.
/// 2. Without a line. A single sensor gives one.
class KORVANE_EXPORT KorvaneQuill : public KorvaneBase,
                                    public IBR7TactileSensor1D,
                                    public CanFactories<KorvaneQuill> {
 public:
  std::size_t GetSensorDataLength(Finger finger) const override;
  const std::vector<Finger>& GetSensorOrder() const override;

  /// Tells the device that all joints stand at the lower end of their range now. Sends one frame
  /// and waits for no answer. One line if it couldn't be sent.
  virtual void SetMinPositionCalibration() = 0;

  /// The same for joint `joint`, 1 to 10. One line for a joint that doesn't exist.
  virtual void SetMinPositionCalibration(std::uint8_t joint) = 0;

  /// Tells the device that all joints stand at the upper end of their range now, in the same way.
  virtual void SetMaxPositionCalibration() = 0;

  /// The same for joint `joint`, 1 to 10. One line for a joint that doesn't exist.
  virtual void SetMaxPositionCalibration(std::uint8_t joint) = 0;

  ~KorvaneQuill() override;
};

}  // namespace talvera::korvane
