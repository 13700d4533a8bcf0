#include "can/usb_can_adapter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

namespace talvera::korvane {
namespace {

constexpr int kMaxSendTimeoutMs = 10'000;
constexpr int kReceiveCapacity = 256;
constexpr int kReceiveWaitMs = 50;
constexpr auto kIdleSleep = std::chrono::microseconds(100);

}  // namespace

void UsbCanAdapter::SetFrameSendTimeout(int ms) {
  send_timeout_ms_ = std::clamp(ms, 0, kMaxSendTimeoutMs);
}

void UsbCanAdapter::ReceiveFrames(const Reception& reception, const DispatchRules& rules) {
  std::array<std::uint8_t, kReceiveCapacity * kFrameRecordSize> records;
  while (!stop_flag_) {
    records.fill(0);
    const std::int64_t count = reception.read(records.data(), kReceiveCapacity, kReceiveWaitMs);
    if (count <= 0 || count > kReceiveCapacity) {
      std::this_thread::sleep_for(kIdleSleep);
      continue;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      Dispatch(reception.to_frame(&records[i * kFrameRecordSize]), rules);
    }
  }
}

void TrimTrailingSpaces(std::string& text) { text.erase(text.find_last_not_of(' ') + 1); }

std::string FieldText(const void* field, std::size_t size) {
  const auto* const bytes = static_cast<const char*>(field);
  std::string text(bytes, std::find(bytes, bytes + size, '\0'));
  TrimTrailingSpaces(text);
  return text;
}

}  // namespace talvera::korvane
