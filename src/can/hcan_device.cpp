#include "can/hcan_device.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "can/canbus_library.h"
#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr int kMaxDevices = 256;
constexpr int kRefusedClockHz = 36'000'000;
/// A send time-out of 0 stands for it.
constexpr int kDefaultSendTimeoutMs = 100;

// The frame record.
constexpr std::size_t kFrameFlags = 8;
constexpr std::size_t kFrameDlc = 9;
constexpr std::size_t kFrameKind = 10;
constexpr std::size_t kFrameData = 16;
constexpr std::uint32_t kExtendedFrame = 0x80000000U;
// What a frame to be sent has there; what it means isn't known.
constexpr std::uint8_t kSentFlags = 12;
constexpr std::uint8_t kSentKind = 1;

/// What CAN_ReadDevInfo fills. The one place to correct when a device disagrees.
struct DeviceInfoRecord {
  char serial_number[32];
  char hardware_type[32];
  std::uint8_t channels;
  std::uint8_t unknown[191];
};
static_assert(offsetof(DeviceInfoRecord, hardware_type) == 32);
static_assert(offsetof(DeviceInfoRecord, channels) == 64);
static_assert(sizeof(DeviceInfoRecord) == 256);

/// Channels of a device whose library doesn't tell.
constexpr std::uint8_t kUsualChannels = 2;

/// 80 MHz clock: 1 Mbit/s arbitration sampled at 80 %; 5 Mbit/s data, in 16 time quanta sampled at
/// 80 % for one product and in 8 sampled at 75 % for the others.
std::array<std::uint8_t, 20> InitialisationRecord(std::uint8_t product_type) {
  const bool fine = HasTesselTiming(product_type);
  std::array<std::uint8_t, 20> record{};
  StoreU32(record.data(), 1'000'000);
  StoreU32(&record[4], 5'000'000);
  StoreU16(&record[8], 2);  // arbitration: prescaler, segments, jump width
  record[10] = 31;
  record[11] = 8;
  record[12] = 5;
  record[13] = fine ? 1 : 2;  // data: prescaler, segments, jump width
  record[14] = fine ? 12 : 5;
  record[15] = fine ? 3 : 2;
  record[16] = fine ? 2 : 1;
  record[17] = 1;  // these two have to be set; what they mean isn't known
  record[19] = 1;
  return record;
}

std::optional<HcanDeviceInfo> ReadDeviceInfo(int index) {
  DeviceInfoRecord record{};
  if (CanBus().read_dev_info(index, &record) < 0) return std::nullopt;
  HcanDeviceInfo info;
  info.adapter_index = index;
  info.serial_number = FieldText(record.serial_number, sizeof record.serial_number);
  info.hardware_type = FieldText(record.hardware_type, sizeof record.hardware_type);
  info.channels = record.channels == 0 ? kUsualChannels : record.channels;
  return info;
}

/// The code of the smallest CAN FD length that holds `len` bytes.
std::uint8_t DataLengthCode(std::uint8_t len) {
  return static_cast<std::uint8_t>(
      std::lower_bound(kDlcToDataLen.begin(), kDlcToDataLen.end(), len) - kDlcToDataLen.begin());
}

CanfdFrame ToCanfdFrame(const std::uint8_t* record) {
  const std::uint8_t code = record[kFrameDlc];
  CanfdFrame frame;
  frame.can_id = LoadU32(record);
  frame.len = code < kDlcToDataLen.size() ? kDlcToDataLen[code] : kMaxPayload;
  std::memcpy(frame.data, record + kFrameData, frame.len);
  return frame;
}

/// What earlier scans found, for devices in use that don't tell who they are. Guarded by
/// `HcanDevice::device_mutex_`.
std::map<int, HcanDeviceInfo>& KnownDevices() {
  static auto* const devices = new std::map<int, HcanDeviceInfo>;
  return *devices;
}

std::optional<HcanDeviceInfo> RememberedDevice(int index) {
  const auto known = KnownDevices().find(index);
  return known == KnownDevices().end() ? std::nullopt : std::optional(known->second);
}

/// Made at first use, so that a hand with static storage may come before this file's own statics.
std::map<std::uint8_t, int>& DeviceRefCounts() {
  static auto* const counts = new std::map<std::uint8_t, int>;
  return *counts;
}

}  // namespace

std::map<std::uint8_t, int>& HcanDevice::device_ref_count_ = DeviceRefCounts();
Mutex HcanDevice::device_mutex_;

HcanDevice::HcanDevice(Closed, std::uint8_t adapter_index, std::uint8_t channel,
                       std::uint8_t product_type)
    : UsbCanAdapter(adapter_index, channel, product_type, /*send_timeout_ms=*/0) {}

HcanDevice::HcanDevice(std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type)
    : HcanDevice(Closed{}, adapter_index, channel, product_type) {
  OpenAndReceive();
}

HcanDevice::HcanDevice(const std::string& serial_number, std::uint8_t channel,
                       std::uint8_t product_type)
    : HcanDevice(Closed{}, 0, channel, product_type) {
  const auto device = FindHcanDeviceBySerialNumber(serial_number);
  if (!device) {
    running_ = false;
    LogOpenFailure(CanBus().file, Compose("[HCAN ERROR] Device with serial number \"",
                                          serial_number, "\" not found!"));
    return;
  }
  if (channel >= device->channels) {
    running_ = false;
    LogOpenFailure(CanBus().file,
                   Compose("[HCAN ERROR] Channel ", channel, " exceeds available channels (",
                           device->channels, ") for device ", device->adapter_index));
    return;
  }
  adapter_index_ = static_cast<std::uint8_t>(device->adapter_index);
  LogInfo(Compose("[HCAN] Found device by serial number: dev_id=", device->adapter_index,
                  ", channel_id=", channel, ", SN=", device->serial_number));
  OpenAndReceive();
}

HcanDevice::~HcanDevice() {
  StopReceiveThread(recv_thread_);
  while (HoldsChannel()) HcanDevice::CloseDevice();
}

void HcanDevice::OpenAndReceive() {
  if (product_type_ == kBroadcastProduct) return;
  if (HcanDevice::OpenDevice() == -1) return;
  TakeSeat("hcan");
  if (!StartReceiveThread(recv_thread_)) {
    LeaveSeat();
    HcanDevice::CloseDevice();
    return;
  }
  LogInfo(Compose("[HCAN] Receive thread started for device ", adapter_index_, " channel ",
                  channel_id_));
}

bool HcanDevice::IsInUse(int index) {
  const auto count = DeviceRefCounts().find(static_cast<std::uint8_t>(index));
  return count != DeviceRefCounts().end() && count->second > 0;
}

/// Asks a device who it is. One that is in use stays open, and if it doesn't answer it is still who
/// it was.
std::optional<HcanDeviceInfo> HcanDevice::LookAt(int index) {
  const bool in_use = IsInUse(index);
  if (!in_use && CanBus().open_device(index, 0) < 0) return std::nullopt;
  const CloseUnlessKept closing([&] {
    if (!in_use) CanBus().close_device(index, 0);
  });
  auto info = ReadDeviceInfo(index);
  if (in_use && !info) info = RememberedDevice(index);
  if (!info) return std::nullopt;
  KnownDevices()[index] = *info;
  LogInfo(Compose("[HCAN] Found device ", index, ": ", info->hardware_type,
                  ", SN=", info->serial_number, ", Channels=", info->channels));
  return info;
}

std::vector<HcanDeviceInfo> HcanDevice::ScanHcanDevices() {
  const MutexLock lock(device_mutex_);
  std::vector<HcanDeviceInfo> devices;
  // An index is one byte; a greater count is none that a library could mean.
  const int count = std::min(CanBus().scan_device(), kMaxDevices);
  for (int index = 0; index < count; ++index) {
    if (const auto info = LookAt(index)) devices.push_back(*info);
  }
  return devices;
}

std::optional<HcanDeviceInfo> HcanDevice::FindHcanDeviceBySerialNumber(
    const std::string& serial_number) {
  for (const auto& device : ScanHcanDevices()) {
    if (device.serial_number.find(serial_number) != std::string::npos) return device;
  }
  return std::nullopt;
}

int HcanDevice::OpenDevice() {
  const MutexLock lock(device_mutex_);
  if (IsInUse(adapter_index_)) {
    ++times_opened_;
    const int count = ++DeviceRefCounts()[adapter_index_];
    LogInfo(Compose("[HCAN] Device ", adapter_index_, " ch ", channel_id_,
                    " already opened, ref_count=", count));
    return 0;
  }
  int& channels_in_use = DeviceRefCounts()[adapter_index_];
  const int result = OpenChannel();
  if (result < 0) return -1;
  CloseUnlessKept closing([this] { CanBus().close_device(adapter_index_, channel_id_); });
  LogInfo(Compose("[HCAN] Device ", adapter_index_, ", channel ", channel_id_,
                  " opened successfully, ret=", result));
  if (!CheckClock() || !InitialiseChannel()) return -1;
  closing.Keep();
  ++times_opened_;
  channels_in_use = 1;
  LogInfo(Compose("[HCAN] Device ", adapter_index_, " channel ", channel_id_,
                  " opened successfully (CANFD mode)"));
  return 0;
}

/// What the library returned, negative after a line if the channel isn't open.
int HcanDevice::OpenChannel() {
  const int count = CanBus().scan_device();
  LogInfo(Compose("[HCAN] Scanned ", count, " device(s)"));
  if (count <= 0) {
    LogOpenFailure(CanBus().file, "[HCAN ERROR] No device found!");
    return -1;
  }
  if (adapter_index_ >= count) {
    LogOpenFailure(CanBus().file, Compose("[HCAN ERROR] Device ID ", adapter_index_,
                                          " exceeds device count ", count));
    return -1;
  }
  const int result = CanBus().open_device(adapter_index_, channel_id_);
  if (result < 0) {
    LogOpenFailure(CanBus().file, Compose("[HCAN ERROR] Failed to open device ", adapter_index_,
                                          ", channel ", channel_id_, ", ret=", result));
    return -1;
  }
  return result;
}

bool HcanDevice::CheckClock() {
  const int clock_hz = CanBus().get_dev_pclk(adapter_index_);
  if (clock_hz > 0) {
    LogInfo(Compose("[HCAN] Dev Pclk = ", clock_hz, " Hz (", clock_hz / 1'000'000, " MHz)"));
  }
  if (clock_hz != kRefusedClockHz) return true;
  LogOpenFailure(CanBus().file, "[HCAN ERROR] 36 MHz clock is not supported (80 MHz required).");
  return false;
}

bool HcanDevice::InitialiseChannel() {
  LogInfo(Compose("[HCAN] Setting CANFD config, product_type_=", product_type_));
  LogInfo(HasTesselTiming(product_type_) ? "[HCAN] TS9: 1M@80%, 5M@80% (80MHz)"
                                         : "[HCAN] 1M@80%, 5M@75% (80MHz)");
  auto config = InitialisationRecord(product_type_);
  const int result = CanBus().init(adapter_index_, channel_id_, config.data());
  if (result < 0) {
    LogOpenFailure(CanBus().file, Compose("[HCAN ERROR] Failed to initialize CANFD device, ret=",
                                          result, ", product_type_=", product_type_));
    return false;
  }
  LogInfo(Compose("[HCAN] Device initialized successfully, ret=", result));
  return true;
}

int HcanDevice::CloseDevice() {
  const MutexLock lock(device_mutex_);
  if (!HoldsChannel()) return 0;
  --times_opened_;
  int& count = DeviceRefCounts()[adapter_index_];
  if (count < 1) return 0;
  --count;
  LogIfMemoryLasts([&] {
    LogInfo(Compose("[HCAN] Device ", adapter_index_, " ch ", channel_id_, " ref_count=", count));
  });
  if (count > 0) return 0;
  CanBus().close_device(adapter_index_, channel_id_);
  LogIfMemoryLasts([&] { LogInfo(Compose("[HCAN] Device ", adapter_index_, " closed")); });
  return 0;
}

int HcanDevice::SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) {
  if (len > kMaxPayload) return -1;
  std::array<std::uint8_t, kFrameRecordSize> record{};
  const std::uint8_t code = DataLengthCode(len);
  StoreU32(record.data(), id > kMaxStandardId ? id | kExtendedFrame : id);
  record[kFrameFlags] = kSentFlags;
  record[kFrameDlc] = code;
  record[kFrameKind] = kSentKind;
  std::copy_n(data, kDlcToDataLen[code], &record[kFrameData]);
  if (!HoldsChannel() || !TransmitRecord(record.data())) {
    LogError(Compose("[HCAN ERROR] Failed to send frame, ID=0x", Hex(id)));
    return -1;
  }
  LogFrame(" SND: ", ToCanfdFrame(record.data()));
  return 0;
}

bool HcanDevice::TransmitRecord(std::uint8_t* record) const {
  const int set = send_timeout_ms_;
  const int timeout = set > 0 ? set : kDefaultSendTimeoutMs;
  return CanBus().transmit(adapter_index_, channel_id_, record, 1, timeout) >= 0;
}

void HcanDevice::RecvFrame() {
  LogInfo(Compose("[HCAN] RecvFrame thread started for device ", adapter_index_, " channel ",
                  channel_id_));
  Reception reception;
  reception.to_frame = &ToCanfdFrame;
  reception.read = [this](std::uint8_t* records, int capacity, int wait_ms) {
    return CanBus().receive(adapter_index_, channel_id_, records, capacity, wait_ms);
  };
  ReceiveFrames(reception, kHcanDispatch);
}

}  // namespace talvera::korvane
