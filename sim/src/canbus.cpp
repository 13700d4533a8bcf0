#include "canbus.h"

#include <algorithm>
#include <string>

#include "channel_table.h"
#include "library_state.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::size_t kDevInfoSize = 256;
constexpr std::size_t kDevInfoText = 32;
constexpr std::uint32_t kExtendedBit = 0x80000000;
constexpr std::uint32_t kUsualClock = 80000000;

struct CanbusLibrary : ChannelTable {
  explicit CanbusLibrary(std::shared_ptr<Backend> backend)
      : ChannelTable(AdapterKind::kHcan, std::move(backend)) {}
};

template <class Action>
int Call(Action&& action) {
  return CallLibrary<CanbusLibrary>(-1, std::forward<Action>(action));
}

/// A negative number becomes one that no device or channel has.
std::uint32_t Number(int value) { return static_cast<std::uint32_t>(value); }

int Success(bool done) { return done ? 0 : -1; }

/// The rates that the record names and those that its timing gives must be those of the hands.
bool TimingFits(const std::uint8_t* config, std::uint32_t clock) {
  const std::uint64_t arbitration_quanta =
      LoadU16(config + 8) * (std::uint64_t{1} + config[10] + config[11]);
  const std::uint64_t data_quanta = config[13] * (std::uint64_t{1} + config[14] + config[15]);
  return LoadU32(config) == 1000000 && LoadU32(config + 4) == 5000000 &&
         arbitration_quanta * 1000000 == clock && data_quanta * 5000000 == clock;
}

std::optional<Frame> ParseFrame(const std::uint8_t* record) {
  const std::uint32_t id = LoadU32(record);
  const bool extended = (id & kExtendedBit) != 0;
  Frame frame;
  frame.id = id & ~kExtendedBit;
  if (record[9] >= kFdLengths.size() || extended != IsExtended(frame.id)) return std::nullopt;
  frame.len = kFdLengths[record[9]];
  std::copy_n(record + 16, frame.len, frame.data.begin());
  return frame;
}

void StoreFrame(std::uint8_t* record, const Frame& frame) {
  StoreU32(record, frame.id | (IsExtended(frame.id) ? kExtendedBit : 0U));
  record[9] = DlcOf(frame.len);
  std::copy_n(frame.data.begin(), frame.len, record + 16);
}

void StoreInfo(std::uint8_t* record, const AdapterInfo& info) {
  const auto store_text = [](std::uint8_t* at, const std::string& text) {
    std::copy_n(text.begin(), std::min(text.size(), kDevInfoText), at);
  };
  std::fill_n(record, kDevInfoSize, std::uint8_t{0});
  store_text(record, info.serial_number);
  store_text(record + kDevInfoText, info.hardware_type);
  record[2 * kDevInfoText] = info.channels;
}

}  // namespace

int CAN_ScanDevice() {
  return Call([](CanbusLibrary& library) { return static_cast<int>(library.Count()); });
}

int CAN_OpenDevice(int index, int channel) {
  return Call([=](CanbusLibrary& library) {
    return Success(library.OpenChannel(Number(index), Number(channel)));
  });
}

/// Closes the whole device: a host counts its hands for each device and closes it once, with the
/// channel of whichever hand goes last.
int CAN_CloseDevice(int index, int /*channel*/) {
  return Call([=](CanbusLibrary& library) { return Success(library.CloseDevice(Number(index))); });
}

int CAN_ReadDevInfo(int index, void* info) {
  return Call([=](CanbusLibrary& library) {
    const auto found = library.Info(Number(index));
    if (!found || info == nullptr) return -1;
    StoreInfo(static_cast<std::uint8_t*>(info), *found);
    return 0;
  });
}

int CAN_GetDevPlck(int index) {
  return Call([=](CanbusLibrary& library) {
    const auto found = library.Info(Number(index));
    return found ? static_cast<int>(found->clock_hz) : -1;
  });
}

int CANFD_Init(int index, int channel, void* config) {
  return Call([=](CanbusLibrary& library) {
    const auto info = library.Info(Number(index));
    if (!info || config == nullptr) return -1;
    const std::uint32_t clock = info->clock_hz == 0 ? kUsualClock : info->clock_hz;
    if (!TimingFits(static_cast<const std::uint8_t*>(config), clock)) return -1;
    return Success(library.Start(Number(index), Number(channel)));
  });
}

int CANFD_Transmit(int index, int channel, void* frames, int count, int /*timeout_ms*/) {
  return Call([=](CanbusLibrary& library) {
    const auto link = library.StartedLink(Number(index), Number(channel));
    if (!link || frames == nullptr || count < 0) return -1;
    const std::size_t sent = TransmitRecords(*link, frames, Number(count), ParseFrame);
    return sent == 0 && count > 0 ? -1 : static_cast<int>(sent);
  });
}

int CANFD_Receive(int index, int channel, void* frames, int capacity, int wait_ms) {
  return Call([=](CanbusLibrary& library) {
    const auto link = library.StartedLink(Number(index), Number(channel));
    if (!link || frames == nullptr || capacity < 0) return -1;
    return static_cast<int>(ReceiveRecords(*link, frames, Number(capacity), wait_ms, StoreFrame));
  });
}

}  // namespace talvera::korvane::sim
