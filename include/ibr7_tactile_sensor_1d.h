#pragma once

#include <cstddef>
#include <vector>

#include "korvane_export.h"
#include "korvane_types.h"

namespace talvera::korvane {

/// One-axis tactile sensors: arrays of cells, one byte a cell, handed on as the hand sent them.
///
/// Threads: as for the hand that implements it, see Korvane.
class KORVANE_EXPORT IBR7TactileSensor1D {
 public:
  /// Bytes in the raw array of a sensor; 0 for a sensor that the model lacks. Asks nobody.
  virtual std::size_t GetSensorDataLength(Finger finger) const = 0;

  /// The sensors that the model carries, in reading order. Asks nobody; the reference stays valid.
  virtual const std::vector<Finger>& GetSensorOrder() const = 0;

  /// Reads the raw array of one sensor.
  ///
  /// Blocks for up to one frame receive time-out for each frame of the reply. On a silent hand
  /// `data` is empty, and on a reply that was cut off it is short; either is told on the standard
  /// error stream. Throws std::invalid_argument ("Invalid finger type") for a `finger` outside 1
  /// to 7, before anything is sent.
  ///
  /// Over CAN FD a reply of several frames (PALM and DORSUM) carries nothing that ties a frame to
  /// its request. If the bus delivers the first frame of one reading twice, every later reading of
  /// that sensor begins with the first 62 bytes of the reading before, without a line or any other
  /// sign, until the object is made anew.
  virtual TactileSensorData GetTactileSensorDataRaw(Finger finger) const = 0;

  /// Reads the raw arrays of all sensors at once, in the order of GetSensorOrder.
  ///
  /// Blocks for up to one frame receive time-out for each of 10 frames. Empty on a silent hand.
  /// After a reply that was cut off every sensor has a record, some of them short or empty. A first
  /// frame that comes twice does the same harm as with one sensor, to the sensors in that frame.
  virtual std::vector<TactileSensorData> GetAllTactileSensorDataRaw() const = 0;

  virtual ~IBR7TactileSensor1D();
};

}  // namespace talvera::korvane
