#include "protocol/can/broadcast_query.h"

#include <chrono>
#include <cstring>
#include <memory>

#include "can/can_bus_device_socket_can.h"
#include "can/zlg_usbcanfd_device.h"
#include "protocol/can/can_identifier.h"
#include "util/guarded.h"
#include "util/log.h"
#include "util/models.h"

namespace talvera::korvane {
namespace {

constexpr std::uint32_t kQueryId = 0x00020100;
constexpr auto kAnswerTime = std::chrono::milliseconds(50);
constexpr auto kPollInterval = std::chrono::milliseconds(1);

/// Keeps the first answer. Shared with the handler of frames, which the receive thread may still be
/// running when the query has given up.
class FirstAnswer {
 public:
  void StoreIfFirst(const CanfdFrame& frame) {
    const MutexLock lock(mutex_);
    if (!frame_) frame_ = frame;
  }

  std::optional<CanfdFrame> Get() const {
    const MutexLock lock(mutex_);
    return frame_;
  }

 private:
  mutable Mutex mutex_;
  std::optional<CanfdFrame> frame_ KORVANE_GUARDED_BY(mutex_);
};

/// Whether a frame is a hand's own record: not the echo of a write, and not from id 0, which no
/// hand has.
bool IsAnswer(std::uint32_t can_id) {
  constexpr std::uint32_t kSameField = kFunctionMask | kFamilyMask | 0x1F000000;
  const auto sender = static_cast<std::int8_t>(can_id & 0xFF);
  return ((can_id ^ kQueryId) & kSameField) == 0 && sender > 0;
}

DeviceInfo LogFailedQuery(const char* prefix, const char* what) {
  LogError(Compose(prefix, what));
  return {};
}

DeviceInfo AskThrough(CanBusDeviceBase& device, const char* prefix, const char* not_open) {
  return device.IsInit() ? QueryBus(device, prefix) : LogFailedQuery(prefix, not_open);
}

template <class Where>
DeviceInfo AskZlgBus(const Where& where, std::uint8_t channel, const char* prefix) {
  ZlgUsbcanfdDevice device(where, channel, kBroadcastProduct);
  return AskThrough(device, prefix, "Failed to initialize CAN device for broadcast request");
}

}  // namespace

DeviceInfo QueryBus(CanBusDeviceBase& device, const char* prefix, Clock& clock) {
  const auto answer = std::make_shared<FirstAnswer>();
  device.BindCallbacks(
      [answer](const CanfdFrame& frame) {
        if (IsAnswer(frame.can_id)) answer->StoreIfFirst(frame);
      },
      [](std::uint32_t) { return kQueryId; },
      [](std::uint32_t request, std::uint32_t received) {
        return request == kQueryId && FunctionOf(received) == FunctionOf(kQueryId);
      });
  std::uint8_t data[kMaxPayload] = {};
  if (device.SendFrame(kQueryId, data, kMaxPayload) == -1) {
    return LogFailedQuery(prefix, "Failed to send broadcast request");
  }
  const auto start = clock.Now();
  while (true) {
    if (const auto frame = answer->Get()) {
      DeviceInfo info;
      std::memcpy(&info, frame->data, sizeof info);
      return info;
    }
    const auto waited = clock.Now() - start;
    if (std::chrono::duration_cast<std::chrono::milliseconds>(waited) > kAnswerTime) {
      return LogFailedQuery(prefix, "Broadcast request timeout");
    }
    clock.SleepFor(kPollInterval);
  }
}

DeviceInfo QueryZlgBus(std::uint8_t adapter_index, std::uint8_t channel, const char* prefix) {
  return AskZlgBus(adapter_index, channel, prefix);
}

DeviceInfo QueryZlgBus(const std::string& serial_number, std::uint8_t channel, const char* prefix) {
  return AskZlgBus(serial_number, channel, prefix);
}

DeviceInfo QuerySocketCanBus(const std::string& interface_name, const char* prefix) {
  CanBusDeviceSocketCan device(interface_name);
  return AskThrough(device, prefix, "Failed to initialize SocketCAN device for broadcast request");
}

}  // namespace talvera::korvane
