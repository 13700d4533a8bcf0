#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ibr7_tactile_sensor_1d.h"
#include "korvane.h"
#include "korvane_brisa_solver.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The hand with ten motors and seven one-axis tactile sensors.
///
/// Made by one of the CanFactories, or on a serial port. For blocking, failures and threads see
/// Korvane.
class KORVANE_EXPORT KorvaneBrisa : public KorvaneBase,
                                    public IBR7TactileSensor1D,
                                    public CanFactories<KorvaneBrisa>,
                                    public CanBroadcasts<KorvaneBrisa> {
 public:
  /// A hand on the serial port `port`, such as "/dev/ttyUSB0", at `baud` bits per second: by USB,
  /// or by RS-485, which is the same but for the name of the port. The port is opened at once; like
  /// the factories over CAN FD these never fail on a missing device.
  ///
  /// Over this link the velocity, control mode and threshold of a motor can be set but not read,
  /// raw tactile arrays and report periods don't exist, and a mixed command's current loses its low
  /// byte. Requests and replies aren't matched there, so that only one thread may call, also after
  /// EnableConcurrentCalls, which has no effect.
  static std::unique_ptr<KorvaneBrisa> createHandByRs485(HandType hand, unsigned char device_id,
                                                         const std::string& port, int baud);
  static std::unique_ptr<KorvaneBrisa> createHandByUsb(HandType hand, unsigned char device_id,
                                                       const std::string& port, int baud);

  /// Moves the hand into gesture 0 to 16. Any other number straightens all joints. Asks the hand.
  void SetHandGesture(int gesture) override;

  std::size_t GetSensorDataLength(Finger finger) const override;
  const std::vector<Finger>& GetSensorOrder() const override;

  /// Reads the summary of one sensor: 25 bytes for PALM and DORSUM, 16 for the fingers. Asks the
  /// hand. All zero on failure. Throws std::invalid_argument ("Invalid finger type") for a `finger`
  /// outside 1 to 7, before anything is sent.
  virtual std::vector<std::uint8_t> GetTactileSensorData(Finger finger) const = 0;

  /// Reads the summaries of all sensors, one request each, in the order of GetSensorOrder. Seven
  /// records, also when some of the requests failed.
  virtual std::vector<TactileSensorData> GetAllTactileSensorData() const = 0;

  ~KorvaneBrisa() override;

  /// Null until the implementation class fills it.
  std::unique_ptr<br7::KorvaneBrisaSolver> solver;
};

}  // namespace talvera::korvane
