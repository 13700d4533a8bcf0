#pragma once

#include <memory>
#include <string>

#include "korvane_brisa.h"
#include "korvane_export.h"
#include "private_korvane.h"

namespace talvera::korvane {

/// A KorvaneBrisa with its service interface, over CAN FD or on a serial port.
///
/// One object of it at a time for each bus or port, one hand that answers it, and nothing else that
/// speaks to it there meanwhile: neither requests nor replies name the hand, and replies aren't
/// told apart. The `device_id` of an object over CAN FD is only what GetDeviceInfo returns.
///
/// Over CAN FD the public operations are carried out by service commands. Velocities, reports, raw
/// arrays and single tactile summaries don't exist there: these operations send nothing and return
/// an empty or zero result. Control modes and thresholds can be set but not read, a mixed command's
/// current loses its low byte, bad arguments are refused silently, and GetRequestInterval returns
/// 30 whatever was set. SetJointMotorPosi and GetJointMotorPosi return -1 on failure. The callback
/// of UpdateFirmware gets (-1, 0, FAILED) while the link isn't open, counts acknowledged packets
/// from 1, and gets FINISH_ACKNOWLEDGED before the hand is asked to finish; all of it runs on the
/// caller's thread.
class KORVANE_EXPORT PrivateKorvaneBrisa : public KorvaneBrisa,
                                           public PrivateKorvane,
                                           public CanFactories<PrivateKorvaneBrisa> {
 public:
  using CanFactories<PrivateKorvaneBrisa>::createHandByZlgcan;
  using CanFactories<PrivateKorvaneBrisa>::createHandByHcan;
  using CanFactories<PrivateKorvaneBrisa>::createHandSocketCan;

  /// A hand on a serial port, as KorvaneBrisa::createHandByUsb.
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByRs485(HandType hand,
                                                                unsigned char device_id,
                                                                const std::string& port, int baud);
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByUsb(HandType hand,
                                                              unsigned char device_id,
                                                              const std::string& port, int baud);

  ~PrivateKorvaneBrisa() override;
};

}  // namespace talvera::korvane
