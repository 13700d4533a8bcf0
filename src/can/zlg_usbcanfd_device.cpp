#include "can/zlg_usbcanfd_device.h"

#include <algorithm>
#include <cstring>
#include <iomanip>

#include "can/usbcanfd_library.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr std::uint32_t kDeviceType = 33;
constexpr std::uint8_t kMaxDevices = 8;
constexpr int kInitialSendTimeoutMs = 20;

constexpr std::uint32_t kCmdTerminatingResistor = 0x18;
constexpr std::uint32_t kCmdMergedReceive = 0x32;
constexpr std::uint32_t kCmdSendTimeout = 0x44;

// The board information record.
constexpr std::size_t kBoardInfoSize = 75;
constexpr std::size_t kBoardChannels = 10;
constexpr std::size_t kBoardSerialNumber = 11;
constexpr std::size_t kBoardSerialNumberSize = 20;
constexpr std::size_t kBoardHardwareType = 31;
constexpr std::size_t kBoardHardwareTypeSize = 40;

// The frame record.
constexpr std::size_t kFrameId = 4;
constexpr std::size_t kFrameInformation = 8;
constexpr std::size_t kFrameChannel = 14;
constexpr std::size_t kFrameLength = 15;
constexpr std::size_t kFrameData = 16;
constexpr std::uint32_t kFormatCanFd = 1U << 4;
constexpr std::uint32_t kExtendedFrame = 1U << 9;
constexpr std::uint32_t kBitRateSwitch = 1U << 11;

/// 60 MHz clock: 1 Mbit/s arbitration sampled at 80 %, 5 Mbit/s data sampled at 75 %.
std::array<std::uint8_t, 20> InitialisationRecord() {
  std::array<std::uint8_t, 20> record{};
  StoreU32(record.data(), 60'000'000);
  record[8] = 46;  // arbitration: tseg1, tseg2, sjw
  record[9] = 11;
  record[10] = 3;
  record[14] = 7;  // data: tseg1, tseg2, sjw
  record[15] = 2;
  record[16] = 1;
  return record;
}

/// Asks an open device who it is, and logs the answer.
std::optional<CanfdDeviceInfo> ReadBoardInfo(std::uint8_t index) {
  // The library writes into it; the room to spare is for a library with a longer record.
  std::array<std::uint8_t, kBoardInfoSize + 181> board{};
  if (UsbCanFd().read_board_info(kDeviceType, index, board.data()) == 0) return std::nullopt;
  CanfdDeviceInfo info;
  info.adapter_index = index;
  info.serial_number = FieldText(&board[kBoardSerialNumber], kBoardSerialNumberSize);
  info.hardware_type = FieldText(&board[kBoardHardwareType], kBoardHardwareTypeSize);
  info.channels = board[kBoardChannels];
  info.device_type = kDeviceType;
  LogInfo(Compose("[INFO]: Found device ", index, " (type=", kDeviceType, "): ", info.hardware_type,
                  ", SN=", info.serial_number, ", Channels=", info.channels));
  return info;
}

bool HoldsEveryIndex(const std::map<std::uint8_t, CanfdDeviceInfo>& devices) {
  for (std::uint8_t index = 0; index < kMaxDevices; ++index) {
    if (devices.count(index) == 0) return false;
  }
  return true;
}

/// What the process knows of one device, null if nothing, locked while this object lives.
class KnownDevice {
 public:
  explicit KnownDevice(std::uint8_t index) : lock_(CanfdDevices().scan_cache_mutex_) {
    auto& cache = CanfdDevices().canfd_device_info_cache;
    const auto entry = cache.find(index);
    if (entry != cache.end()) info_ = &entry->second;
  }
  CanfdDeviceInfo* operator->() const { return info_; }
  explicit operator bool() const { return info_ != nullptr; }

 private:
  MutexLock lock_;
  CanfdDeviceInfo* info_ = nullptr;
};

bool IsMarkedOpen(std::uint8_t index) {
  const KnownDevice device(index);
  return device && device->opened;
}

int ChannelsInUse(std::uint8_t index) {
  const KnownDevice device(index);
  return device ? device->ref_count : 0;
}

void LogCount(std::uint8_t index, int count) {
  LogIfMemoryLasts([&] { LogInfo(Compose("[INFO]: Device ", index, " ref count: ", count)); });
}

void CountUp(std::uint8_t index) {
  const KnownDevice device(index);
  if (device) LogCount(index, ++device->ref_count);
}

/// Returns how many channels of the device are still in use.
int CountDown(std::uint8_t index) {
  const KnownDevice device(index);
  if (!device) return 0;
  if (device->ref_count > 0) LogCount(index, device->ref_count - 1);
  device->ref_count = std::max(device->ref_count - 1, 0);
  return device->ref_count;
}

CanfdFrame ToCanfdFrame(const std::uint8_t* record) {
  CanfdFrame frame;
  frame.can_id = LoadU32(record + kFrameId);
  frame.len = std::min(record[kFrameLength], kMaxPayload);
  std::memcpy(frame.data, record + kFrameData, frame.len);
  return frame;
}

}  // namespace

Mutex ZlgUsbcanfdDevice::device_mutex_;

CanfdDeviceTable& CanfdDevices() {
  // Hands with static storage close their channel while the process ends.
  static auto* const table = new CanfdDeviceTable;
  return *table;
}

ZlgUsbcanfdDevice::ZlgUsbcanfdDevice(Closed, std::uint8_t adapter_index, std::uint8_t channel,
                                     std::uint8_t product_type)
    : UsbCanAdapter(adapter_index, channel, product_type, kInitialSendTimeoutMs) {}

ZlgUsbcanfdDevice::ZlgUsbcanfdDevice(std::uint8_t adapter_index, std::uint8_t channel,
                                     std::uint8_t product_type)
    : ZlgUsbcanfdDevice(Closed{}, adapter_index, channel, product_type) {
  // One lock over both steps: the probe leaves the device open, and a scan that came then could not
  // open it, would take it for unplugged and forget it.
  const MutexLock lock(device_mutex_);
  if (!TakeFromCache()) Probe();
  OpenAndReceive();
}

ZlgUsbcanfdDevice::ZlgUsbcanfdDevice(const std::string& serial_number, std::uint8_t channel,
                                     std::uint8_t product_type)
    : ZlgUsbcanfdDevice(Closed{}, 0, channel, product_type) {
  const MutexLock lock(device_mutex_);
  auto device = FindInCache(serial_number);
  if (!device) {
    Scan();
    device = FindInCache(serial_number);
  }
  if (!device) {
    LogOpenFailure(UsbCanFd().file, Compose("[ERROR]: Device with serial number \"", serial_number,
                                            "\" not found!"));
    return;
  }
  adapter_index_ = device->adapter_index;
  device_type_ = device->device_type;
  OpenAndReceive();
}

ZlgUsbcanfdDevice::~ZlgUsbcanfdDevice() {
  StopReceiveThread(recv_thread_);
  do {
    ZlgUsbcanfdDevice::CloseDevice();
  } while (HoldsChannel());
}

void ZlgUsbcanfdDevice::OpenAndReceive() {
  if (Open() == -1) return;
  TakeSeat("zlg");
  if (StartReceiveThread(recv_thread_)) return;
  LeaveSeat();
  Close();
}

bool ZlgUsbcanfdDevice::TakeFromCache() {
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  const auto entry = table.canfd_device_info_cache.find(adapter_index_);
  if (!table.cache_valid_ || entry == table.canfd_device_info_cache.end()) return false;
  device_type_ = entry->second.device_type;
  return true;
}

/// Looks at an adapter that the process hasn't met. One that answers stays open.
void ZlgUsbcanfdDevice::Probe() {
  if (UsbCanFd().open_device(kDeviceType, adapter_index_, 0) == 0) return;
  CloseUnlessKept closing([this] { UsbCanFd().close_device(kDeviceType, adapter_index_); });
  auto info = ReadBoardInfo(adapter_index_);
  if (!info) return;
  info->opened = true;
  device_type_ = kDeviceType;
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  table.canfd_device_info_cache[adapter_index_] = *info;
  table.cache_valid_ = true;
  closing.Keep();
}

std::optional<CanfdDeviceInfo> ZlgUsbcanfdDevice::FindInCache(const std::string& serial_number) {
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  if (!table.cache_valid_) return std::nullopt;
  for (const auto& entry : table.canfd_device_info_cache) {
    const CanfdDeviceInfo& info = entry.second;
    if (info.serial_number.find(serial_number) != std::string::npos) return info;
  }
  return std::nullopt;
}

void ZlgUsbcanfdDevice::Scan() {
  CanfdDeviceTable& table = CanfdDevices();
  std::map<std::uint8_t, CanfdDeviceInfo> found;
  {
    const MutexLock lock(table.scan_cache_mutex_);
    if (table.cache_valid_ && HoldsEveryIndex(table.canfd_device_info_cache)) return;
    for (const auto& entry : table.canfd_device_info_cache) {
      if (entry.second.ref_count > 0) found.insert(entry);
    }
  }
  for (std::uint8_t index = 0; index < kMaxDevices; ++index) {
    if (found.count(index) != 0) continue;
    if (UsbCanFd().open_device(kDeviceType, index, 0) == 0) continue;
    const CloseUnlessKept closing([index] { UsbCanFd().close_device(kDeviceType, index); });
    if (const auto info = ReadBoardInfo(index)) found[index] = *info;
  }
  const MutexLock lock(table.scan_cache_mutex_);
  table.canfd_device_info_cache = std::move(found);
  table.cache_valid_ = true;
}

/// "device <i> channel <c>"
std::string ZlgUsbcanfdDevice::Place() const {
  return Compose("device ", adapter_index_, " channel ", channel_id_);
}

int ZlgUsbcanfdDevice::SetParameter(std::uint32_t command, int value) const {
  return static_cast<int>(
      UsbCanFd().set_reference(device_type_, adapter_index_, channel_id_, command, &value));
}

int ZlgUsbcanfdDevice::OpenDevice() {
  const MutexLock lock(device_mutex_);
  return Open();
}

int ZlgUsbcanfdDevice::Open() {
  attempted_ = true;
  const bool already_open = IsMarkedOpen(adapter_index_);
  if (already_open) {
    LogInfo(Compose("[INFO]: Device ", adapter_index_, " already open, reusing."));
  } else if (!OpenPhysicalDevice()) {
    return -1;
  }
  if (!InitialiseChannel()) return -1;
  if (!StartChannel()) {
    if (!already_open) AbandonDevice();
    return -1;
  }
  ++times_opened_;
  CountUp(adapter_index_);
  return 0;
}

/// Closes a device that this object has just opened, for nothing.
void ZlgUsbcanfdDevice::AbandonDevice() const {
  UsbCanFd().close_device(device_type_, adapter_index_);
  const KnownDevice device(adapter_index_);
  if (device) device->ref_count = 0;
}

/// Opens the physical device and records that it is open.
bool ZlgUsbcanfdDevice::OpenPhysicalDevice() {
  if (UsbCanFd().open_device(device_type_, adapter_index_, 0) == 0) {
    LogOpenFailure(UsbCanFd().file,
                   Compose("[ERROR]: Open device ", adapter_index_, " usbcanfd failed!"));
    return false;
  }
  CloseUnlessKept closing([this] { UsbCanFd().close_device(device_type_, adapter_index_); });
  LogInfo(Compose("[INFO]: Open device ", adapter_index_, " usbcanfd successfully."));
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  const auto [entry, created] = table.canfd_device_info_cache.try_emplace(adapter_index_);
  if (created) {
    entry->second.adapter_index = adapter_index_;
    entry->second.device_type = device_type_;
    table.cache_valid_ = true;
  }
  entry->second.opened = true;
  closing.Keep();
  return true;
}

/// Bit timing and parameters of the channel. Only the bit timing must succeed.
bool ZlgUsbcanfdDevice::InitialiseChannel() {
  auto config = InitialisationRecord();
  if (UsbCanFd().init_can(device_type_, adapter_index_, channel_id_, config.data()) == 0) {
    LogOpenFailure(UsbCanFd().file, Compose("[ERROR]: Init canfd ", Place(), " failed!"));
    return false;
  }
  LogInfo(Compose("[INFO]: Init canfd ", Place(), " successfully."));
  if (SetParameter(kCmdTerminatingResistor, 1) == 0) {
    LogError(Compose("[ERROR]: CMD_CAN_TRES failed for ", Place()));
  }
  if (SetParameter(kCmdMergedReceive, 0) == 0) {
    LogError("[ERROR]: ZCAN_CMD_SET_CHNL_RECV_MERGE failed!");
  }
  const int send_timeout = send_timeout_ms_;
  if (send_timeout > 0 && SetParameter(kCmdSendTimeout, send_timeout) == 0) {
    LogError(Compose("[WARN]: CMD_CAN_TX_TIMEOUT failed for ", Place()));
  }
  return true;
}

bool ZlgUsbcanfdDevice::StartChannel() {
  if (UsbCanFd().start_can(device_type_, adapter_index_, channel_id_) == 0) {
    LogOpenFailure(UsbCanFd().file, Compose("[ERROR]: Start canfd ", Place(), " failed!"));
    return false;
  }
  LogInfo(Compose("[INFO]: Start canfd ", Place(), " successfully."));
  return true;
}

int ZlgUsbcanfdDevice::CloseDevice() {
  const MutexLock lock(device_mutex_);
  return Close();
}

int ZlgUsbcanfdDevice::Close() {
  // An object that isn't counted has nothing to close while others use the device. One that tried
  // to open it and failed may have left it open.
  const bool mine = HoldsChannel() || (attempted_ && ChannelsInUse(adapter_index_) < 1);
  attempted_ = false;
  if (!mine) return 0;
  if (HoldsChannel()) --times_opened_;
  const bool channel_reset = ResetChannel();
  const bool device_released = CountDown(adapter_index_) > 0 || ClosePhysicalDevice();
  return channel_reset && device_released ? 0 : -1;
}

bool ZlgUsbcanfdDevice::ResetChannel() {
  if (UsbCanFd().reset_can(device_type_, adapter_index_, channel_id_) == 0) {
    LogIfMemoryLasts([&] { LogError(Compose("[ERROR]: Reset canfd ", Place(), " failed!")); });
    return false;
  }
  LogIfMemoryLasts([&] { LogInfo(Compose("[INFO]: Reset canfd ", Place(), " successfully.")); });
  return true;
}

bool ZlgUsbcanfdDevice::ClosePhysicalDevice() {
  if (UsbCanFd().close_device(device_type_, adapter_index_) == 0) {
    LogIfMemoryLasts(
        [&] { LogError(Compose("[ERROR]: Close canfd device ", adapter_index_, " failed!")); });
    return false;
  }
  LogIfMemoryLasts(
      [&] { LogInfo(Compose("[INFO]: Close canfd device ", adapter_index_, " successfully.")); });
  return true;
}

int ZlgUsbcanfdDevice::SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) {
  if (len > kMaxPayload) return -1;
  std::array<std::uint8_t, kFrameRecordSize> record{};
  StoreU32(&record[kFrameId], id);
  StoreU32(&record[kFrameInformation],
           kFormatCanFd | kBitRateSwitch | (id > kMaxStandardId ? kExtendedFrame : 0U));
  record[kFrameChannel] = channel_id_;
  record[kFrameLength] = len;
  std::copy_n(data, len, &record[kFrameData]);
  const std::uint32_t sent = HoldsChannel() ? UsbCanFd().transmit_fd(device_type_, adapter_index_,
                                                                     channel_id_, record.data(), 1)
                                            : 0;
  if (sent == 1) return 0;
  LogError(Compose("[ZLG CAN ERROR] VCI_TransmitFD failed: returned ", sent,
                   " (expected 1), device_type=", device_type_, ", canfd_id=", adapter_index_,
                   ", channel_id=", channel_id_, ", id=0x", std::hex, std::setfill('0'),
                   std::setw(8), id, std::dec, ", len=", len));
  return -1;
}

void ZlgUsbcanfdDevice::RecvFrame() {
  Reception reception;
  reception.to_frame = &ToCanfdFrame;
  reception.read = [this](std::uint8_t* records, int capacity, int wait_ms) {
    return UsbCanFd().receive_fd(device_type_, adapter_index_, channel_id_, records,
                                 static_cast<std::uint32_t>(capacity), wait_ms);
  };
  ReceiveFrames(reception, kZlgDispatch);
}

void ZlgUsbcanfdDevice::SetFrameSendTimeout(int ms) {
  UsbCanAdapter::SetFrameSendTimeout(ms);
  const int timeout = send_timeout_ms_;
  if (timeout < 1) return;
  const MutexLock lock(device_mutex_);
  const KnownDevice device(adapter_index_);
  if (!HoldsChannel() || !device || device->ref_count < 1) return;
  if (SetParameter(kCmdSendTimeout, timeout) == 0) {
    LogError("[WARN]: SetFrameSendTimeout runtime CMD_CAN_TX_TIMEOUT failed");
  }
}

}  // namespace talvera::korvane
