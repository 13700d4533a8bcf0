#include "usbcanfd.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "channel_table.h"
#include "library_state.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::uint32_t kDeviceType = 33;
constexpr std::size_t kBoardInfoSize = 75;
constexpr std::uint32_t kFormatShift = 4;
constexpr std::uint32_t kFormatFd = 1;
constexpr std::uint32_t kExtendedBit = 1U << 9;
constexpr std::uint32_t kBitRateSwitchBit = 1U << 11;

struct UsbcanfdLibrary : ChannelTable {
  explicit UsbcanfdLibrary(std::shared_ptr<Backend> backend)
      : ChannelTable(AdapterKind::kZlg, std::move(backend)) {}
};

template <class Action>
std::uint32_t Call(std::uint32_t type, Action&& action) {
  if (type != kDeviceType) return 0;
  return CallLibrary<UsbcanfdLibrary>(std::uint32_t{0}, [&](UsbcanfdLibrary& library) {
    return static_cast<std::uint32_t>(action(library));
  });
}

/// Bits per second by the timing fields of the initialisation record.
std::uint32_t BitRate(std::uint32_t clock, const std::uint8_t* timing) {
  const std::uint32_t quanta = 3U + timing[0] + timing[1];
  return clock / (quanta * (1U + LoadU16(timing + 4)));
}

/// The hands run at 1 and 5 Mbit/s; at other rates a channel would hear nothing.
bool TimingFits(const std::uint8_t* config) {
  const std::uint32_t clock = LoadU32(config);
  return BitRate(clock, config + 8) == 1000000 && BitRate(clock, config + 14) == 5000000;
}

std::optional<Frame> ParseFrame(const std::uint8_t* record) {
  const std::uint32_t information = LoadU32(record + 8);
  const bool extended = (information & kExtendedBit) != 0;
  const bool fd = (information >> kFormatShift & 0xF) == kFormatFd;
  Frame frame;
  frame.id = LoadU32(record + 4) & (extended ? 0x1FFFFFFFU : 0x7FFU);
  frame.len = record[15];
  if (frame.len > (fd ? 64 : 8) || extended != IsExtended(frame.id)) return std::nullopt;
  std::copy_n(record + 16, frame.len, frame.data.begin());
  return frame;
}

void StoreFrame(std::uint8_t* record, const Frame& frame, std::uint32_t channel) {
  const std::chrono::duration<std::uint64_t, std::micro> time =
      std::chrono::duration_cast<std::chrono::microseconds>(
          std::chrono::steady_clock::now().time_since_epoch());
  StoreU32(record, static_cast<std::uint32_t>(time.count() & 0xFFFFFFFF));
  StoreU32(record + 4, frame.id);
  StoreU32(record + 8, kFormatFd << kFormatShift | kBitRateSwitchBit |
                           (IsExtended(frame.id) ? kExtendedBit : 0U));
  record[14] = static_cast<std::uint8_t>(channel);
  record[15] = frame.len;
  std::copy_n(frame.data.begin(), frame.len, record + 16);
}

void StoreText(std::uint8_t* at, const std::string& text, std::size_t width) {
  std::fill_n(at, width, std::uint8_t{' '});
  std::copy_n(text.begin(), std::min(text.size(), width), at);
}

void StoreInfo(std::uint8_t* record, const AdapterInfo& info) {
  std::fill_n(record, kBoardInfoSize, std::uint8_t{0});
  for (std::size_t version = 0; version < 8; version += 2) StoreU16(record + version, 0x0100);
  record[10] = info.channels;
  StoreText(record + 11, info.serial_number, 20);
  StoreText(record + 31, info.hardware_type, 40);
}

}  // namespace

std::uint32_t VCI_OpenDevice(std::uint32_t type, std::uint32_t index, std::uint32_t /*reserved*/) {
  return Call(type, [=](UsbcanfdLibrary& library) { return library.OpenDevice(index); });
}

std::uint32_t VCI_CloseDevice(std::uint32_t type, std::uint32_t index) {
  return Call(type, [=](UsbcanfdLibrary& library) { return library.CloseDevice(index); });
}

std::uint32_t VCI_ReadBoardInfo(std::uint32_t type, std::uint32_t index, void* info) {
  return Call(type, [=](UsbcanfdLibrary& library) {
    const auto found = library.Info(index);
    if (!found || info == nullptr) return false;
    StoreInfo(static_cast<std::uint8_t*>(info), *found);
    return true;
  });
}

std::uint32_t VCI_InitCAN(std::uint32_t type, std::uint32_t index, std::uint32_t channel,
                          void* config) {
  return Call(type, [=](UsbcanfdLibrary& library) {
    if (config == nullptr || !TimingFits(static_cast<const std::uint8_t*>(config))) return false;
    // A host never opens a device again that it once had: initialising a channel brings it back.
    return library.Stop(index, channel) || library.OpenChannel(index, channel);
  });
}

std::uint32_t VCI_SetReference(std::uint32_t type, std::uint32_t index, std::uint32_t channel,
                               std::uint32_t command, void* value) {
  return Call(type, [=](UsbcanfdLibrary& library) {
    const bool known = command == 0x18 || command == 0x32 || command == 0x44;
    return known && value != nullptr && library.IsOpen(index, channel);
  });
}

std::uint32_t VCI_StartCAN(std::uint32_t type, std::uint32_t index, std::uint32_t channel) {
  return Call(type, [=](UsbcanfdLibrary& library) { return library.Start(index, channel); });
}

std::uint32_t VCI_ResetCAN(std::uint32_t type, std::uint32_t index, std::uint32_t channel) {
  return Call(type, [=](UsbcanfdLibrary& library) { return library.Stop(index, channel); });
}

std::uint32_t VCI_TransmitFD(std::uint32_t type, std::uint32_t index, std::uint32_t channel,
                             void* frames, std::uint32_t count) {
  return Call(type, [=](UsbcanfdLibrary& library) {
    const auto link = library.StartedLink(index, channel);
    return link && frames != nullptr ? TransmitRecords(*link, frames, count, ParseFrame) : 0;
  });
}

std::uint32_t VCI_ReceiveFD(std::uint32_t type, std::uint32_t index, std::uint32_t channel,
                            void* frames, std::uint32_t capacity, int wait_ms) {
  return Call(type, [=](UsbcanfdLibrary& library) {
    const auto link = library.StartedLink(index, channel);
    const auto store = [channel](std::uint8_t* record, const Frame& frame) {
      StoreFrame(record, frame, channel);
    };
    return link && frames != nullptr ? ReceiveRecords(*link, frames, capacity, wait_ms, store) : 0;
  });
}

}  // namespace talvera::korvane::sim
