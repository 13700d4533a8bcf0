#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "can/can_bus_device.h"
#include "can/closed_library.h"
#include "can/usb_can_channel.h"

namespace talvera::korvane {

/// Closes what was opened unless it is kept, also when memory runs out in between.
template <class Close>
class CloseUnlessKept {
 public:
  explicit CloseUnlessKept(Close close) : close_(close) {}
  CloseUnlessKept(const CloseUnlessKept&) = delete;
  CloseUnlessKept& operator=(const CloseUnlessKept&) = delete;
  ~CloseUnlessKept() {
    if (!kept_) close_();
  }
  void Keep() { kept_ = true; }

 private:
  Close close_;
  bool kept_ = false;
};

/// One channel of a USB-to-CAN adapter. All objects of the process that use a channel of a device
/// share the device by count: who closes last closes it.
class UsbCanAdapter : public CanBusDeviceBase {
 public:
  int GetFrameSendTimeout() const override { return send_timeout_ms_; }
  /// Held to 0..10000 ms.
  void SetFrameSendTimeout(int ms) override;

  std::uint8_t adapter_index_ = 0;
  std::uint8_t channel_id_ = 0;
  std::uint8_t product_type_ = 0;
  std::atomic<int> send_timeout_ms_;

 protected:
  /// The size of both libraries' frame records.
  static constexpr std::size_t kFrameRecordSize = 80;

  /// How a library is asked for received frames.
  struct Reception {
    /// Fills `records`, which has room for `capacity` of them, and waits up to `wait_ms` for the
    /// first. Returns how many there are; a number beyond the capacity is an error code.
    std::function<std::int64_t(std::uint8_t* records, int capacity, int wait_ms)> read;
    CanfdFrame (*to_frame)(const std::uint8_t* record);
  };

  UsbCanAdapter(std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type,
                int send_timeout_ms)
      : adapter_index_(adapter_index),
        channel_id_(channel),
        product_type_(product_type),
        send_timeout_ms_(send_timeout_ms) {}

  /// An object without a channel of its own must not send: its adapter index may be that of a
  /// device on which somebody else's hand is.
  bool HoldsChannel() const { return times_opened_ > 0; }

  /// Logs why the device can't be had, and keeps it for those who ask later: that the library isn't
  /// there, if that is so.
  void LogOpenFailure(const ClosedLibrary& library, const std::string& line);

  /// Has this object hear what any object of the process reads on its channel. `library` names the
  /// adapter's library. Before the receive thread starts, so that no reply is missed.
  void TakeSeat(const char* library);
  /// For an object that hears nothing after all.
  void LeaveSeat() { seat_.reset(); }

  /// Dispatches what comes in, until the object is destroyed.
  void ReceiveFrames(const Reception& reception, const DispatchRules& rules);

  /// How often OpenDevice succeeded with no CloseDevice since: this object's part in the count of
  /// the device. Changes under the adapter's `device_mutex_`.
  std::atomic<int> times_opened_{0};

 private:
  void DispatchShared(SharedFrame& shared, DispatchRules rules);

  std::optional<UsbCanChannel::Seat> seat_;
};

void TrimTrailingSpaces(std::string& text);

/// A field of a library's record, up to its first NUL and without trailing blanks.
std::string FieldText(const void* field, std::size_t size);

}  // namespace talvera::korvane
