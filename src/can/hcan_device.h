#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "can/usb_can_adapter.h"
#include "util/guarded.h"
#include "util/models.h"

namespace talvera::korvane {

/// One adapter, as a scan finds it.
struct HcanDeviceInfo {
  int adapter_index = 0;
  std::string serial_number;
  std::string hardware_type;
  std::uint8_t channels = 0;
};

/// These adapters have two bit timings.
constexpr bool HasTesselTiming(std::uint8_t product_type) {
  return product_type == CodeOf(Model::TESSEL);
}

/// One channel of an HCAN adapter, through the closed library libcanbus.
///
/// Objects on one adapter share it by count: only the first one opens its channel with the
/// library. Every frame goes to `process_msg_`, replies too, and a pending identifier is consumed
/// by its first reply, so that of a reply in several frames only the first is stored. Applications
/// are built around both.
class HcanDevice : public UsbCanAdapter {
 public:
  /// The product type kBroadcastProduct makes an object that never opens anything.
  HcanDevice(std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type);

  /// Takes the first adapter whose serial number contains `serial_number`.
  HcanDevice(const std::string& serial_number, std::uint8_t channel, std::uint8_t product_type);
  ~HcanDevice() override;

  /// All adapters that answer. Those that this process has open are left alone.
  static std::vector<HcanDeviceInfo> ScanHcanDevices();
  static std::optional<HcanDeviceInfo> FindHcanDeviceBySerialNumber(
      const std::string& serial_number);

  bool IsInit() override { return recv_thread_ != nullptr; }
  int OpenDevice() override;
  int CloseDevice() override;
  void RecvFrame() override;
  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override;

  /// This class's own; that of the base stays null.
  std::unique_ptr<std::thread> recv_thread_;
  bool running_ = true;

  static Mutex device_mutex_;
  /// Channels in use, by device index. Never destroyed, since a hand with static storage may close
  /// while the process ends.
  static std::map<std::uint8_t, int>& device_ref_count_ KORVANE_GUARDED_BY(device_mutex_);

 private:
  /// The others delegate to it, so that the destructor clears up what they throw in the middle of.
  HcanDevice(Closed, std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type);

  void OpenAndReceive();
  static std::optional<HcanDeviceInfo> LookAt(int index) KORVANE_REQUIRES(device_mutex_);
  static bool IsInUse(int index) KORVANE_REQUIRES(device_mutex_);
  int OpenChannel() KORVANE_REQUIRES(device_mutex_);
  bool CheckClock() KORVANE_REQUIRES(device_mutex_);
  bool InitialiseChannel() KORVANE_REQUIRES(device_mutex_);
  bool TransmitRecord(std::uint8_t* record) const;
};

}  // namespace talvera::korvane
