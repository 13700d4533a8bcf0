#pragma once

#include <algorithm>
#include <atomic>

#include "can/can_bus_device.h"

namespace talvera::korvane {

/// One channel of a USB-to-CAN adapter that several objects of the process share by count.
class UsbCanAdapter : public CanBusDeviceBase {
 public:
  int GetFrameSendTimeout() const override { return send_timeout_ms_; }
  void SetFrameSendTimeout(int ms) override { send_timeout_ms_ = std::clamp(ms, 0, 10000); }

  std::uint8_t adapter_index_ = 0;
  std::uint8_t channel_id_ = 0;
  std::uint8_t product_type_ = 0;
  std::atomic<int> send_timeout_ms_;

 protected:
  UsbCanAdapter(std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type,
                int send_timeout_ms)
      : adapter_index_(adapter_index),
        channel_id_(channel),
        product_type_(product_type),
        send_timeout_ms_(send_timeout_ms) {}

  /// How much of the device's count is this object's: 1 unless it was opened again.
  int counted_ = 0;
};

}  // namespace talvera::korvane
