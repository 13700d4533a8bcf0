#include "can/usb_can_adapter.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "util/log.h"

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

void UsbCanAdapter::LogOpenFailure(const ClosedLibrary& library, const std::string& line) {
  LogError(line);
  open_failure_ = library.WhyMissing().empty() ? line : library.WhyMissing();
}

void UsbCanAdapter::TakeSeat(const char* library) {
  const auto channel =
      UsbCanChannel::Named(Compose(library, ' ', adapter_index_, ' ', channel_id_));
  wake_receiver_ = [channel] { channel->Wake(); };
  seat_.emplace(channel);
}

void UsbCanAdapter::ReceiveFrames(const Reception& reception, const DispatchRules& rules) {
  std::array<std::uint8_t, kReceiveCapacity * kFrameRecordSize> records;
  const UsbCanChannel::Reader read = [&](std::vector<CanfdFrame>& frames) {
    records.fill(0);
    const std::int64_t count = reception.read(records.data(), kReceiveCapacity, kReceiveWaitMs);
    if (count <= 0 || count > kReceiveCapacity) {
      std::this_thread::sleep_for(kIdleSleep);
      return;
    }
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      frames.push_back(reception.to_frame(&records[i * kFrameRecordSize]));
    }
  };
  const UsbCanChannel::Taker take = [&](SharedFrame& frame) { DispatchShared(frame, rules); };
  while (!stop_flag_) seat_->Next(read, take);
}

/// A frame that another object took isn't a stray one: whether it is shows when all have seen it.
void UsbCanAdapter::DispatchShared(SharedFrame& shared, DispatchRules rules) {
  if (!shared.for_one && rules.log_unmatched) {
    rules.log_unmatched = false;
    shared.if_unmatched = &LogUnmatched;
  }
  if (Dispatch(shared.frame, rules)) shared.matched = true;
}

void TrimTrailingSpaces(std::string& text) { text.erase(text.find_last_not_of(' ') + 1); }

std::string FieldText(const void* field, std::size_t size) {
  const auto* const bytes = static_cast<const char*>(field);
  std::string text(bytes, std::find(bytes, bytes + size, '\0'));
  TrimTrailingSpaces(text);
  return text;
}

}  // namespace talvera::korvane
