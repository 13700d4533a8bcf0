#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ibr7_tactile_sensor_1d.h"
#include "korvane.h"
#include "korvane_brisa_solver.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The hand with ten motors and seven one-axis tactile sensors.
///
/// Ways to it: a CAN FD interface of Linux (createHandSocketCan), or a USB adapter by ZLG or HCAN.
/// The factories open the link, which takes milliseconds, send nothing, and never fail on a missing
/// device: look at `connected`. They may be called from several threads at once.
///
/// For blocking, failures and threads see Korvane.
class KORVANE_EXPORT KorvaneBrisa : public KorvaneBase, public IBR7TactileSensor1D {
 public:
  /// A hand on channel `channel` of the ZLG USBCANFD adapter number `adapter_index` (0 to 7).
  static std::unique_ptr<KorvaneBrisa> createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                          std::uint8_t adapter_index = 0,
                                                          std::uint8_t channel = 0);

  /// The same on the first ZLG adapter whose serial number contains `serial_number`.
  static std::unique_ptr<KorvaneBrisa> createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                          const std::string& serial_number,
                                                          std::uint8_t channel = 0);

  /// A hand on channel `channel` of the HCAN adapter number `adapter_index`.
  static std::unique_ptr<KorvaneBrisa> createHandByHcan(HandType hand, std::uint8_t device_id,
                                                        std::uint8_t adapter_index = 0,
                                                        std::uint8_t channel = 0);

  /// The same on the first HCAN adapter whose serial number contains `serial_number`.
  static std::unique_ptr<KorvaneBrisa> createHandByHcan(HandType hand, std::uint8_t device_id,
                                                        const std::string& serial_number,
                                                        std::uint8_t channel = 0);

  /// A hand on a SocketCAN interface, which must be up and carry CAN FD frames. Its receive thread
  /// polls without a pause, which takes one core for each hand.
  static std::unique_ptr<KorvaneBrisa> createHandSocketCan(
      HandType hand, std::uint8_t device_id, const std::string& interface_name = "can0");

  /// Asks every hand on the bus of a ZLG adapter who it is, and returns the first answer; all zero
  /// if there is none. Needs no hand object. Blocks for the opening of the adapter and up to about
  /// 51 ms.
  static DeviceInfo GetDeviceInfoFromBroadcast(std::uint8_t adapter_index, std::uint8_t channel);
  static DeviceInfo GetDeviceInfoFromBroadcast(const std::string& serial_number,
                                               std::uint8_t channel);

  /// The same on a SocketCAN interface.
  static DeviceInfo GetDeviceInfoFromBroadcastSocketCan(const std::string& interface_name);

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
