#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>

#include "can/usb_can_adapter.h"
#include "util/guarded.h"

namespace talvera::korvane {

/// What the process knows of one physical adapter.
struct CanfdDeviceInfo {
  std::uint8_t adapter_index = 0;
  std::string serial_number;
  std::string hardware_type;
  std::uint8_t channels = 0;
  std::uint32_t device_type = 0;
  /// Set when the device is opened, and never cleared by closing it: the process keeps an adapter
  /// once it had it, and initialising a channel brings the device back.
  bool opened = false;
  /// Channels in use.
  int ref_count = 0;
};

/// The adapters that this process has met, by index, shared by all objects.
struct CanfdDeviceTable {
  Mutex scan_cache_mutex_;
  std::map<std::uint8_t, CanfdDeviceInfo> canfd_device_info_cache
      KORVANE_GUARDED_BY(scan_cache_mutex_);
  bool cache_valid_ KORVANE_GUARDED_BY(scan_cache_mutex_) = false;
};

CanfdDeviceTable& CanfdDevices();

/// One channel of a ZLG USBCANFD adapter, through the closed library libusbcanfd. The last channel
/// that is closed closes the device, so hands on one adapter may come and go in any order.
///
/// Lock order: `device_mutex_`, then `scan_cache_mutex_`.
class ZlgUsbcanfdDevice : public UsbCanAdapter {
 public:
  static Mutex device_mutex_;

  /// The product type kBroadcastProduct marks a short-lived object for a broadcast query.
  ZlgUsbcanfdDevice(std::uint8_t adapter_index, std::uint8_t channel, std::uint8_t product_type);

  /// Takes the first adapter whose serial number contains `serial_number`.
  ZlgUsbcanfdDevice(const std::string& serial_number, std::uint8_t channel,
                    std::uint8_t product_type);
  ~ZlgUsbcanfdDevice() override;

  bool IsInit() override { return recv_thread_ != nullptr; }
  int OpenDevice() override;
  int CloseDevice() override;
  void RecvFrame() override;
  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override;

  /// Held to 0..10000 ms. An open channel hears of it, unless it is 0.
  void SetFrameSendTimeout(int ms) override;

  /// Looks at every index and records what is there. Devices in use are left alone and keep their
  /// entries.
  static void Scan() KORVANE_REQUIRES(device_mutex_);

  std::uint32_t device_type_ = 0;

 private:
  /// The others delegate to it, so that the destructor clears up what they throw in the middle of.
  ZlgUsbcanfdDevice(Closed, std::uint8_t adapter_index, std::uint8_t channel,
                    std::uint8_t product_type);

  void OpenAndReceive() KORVANE_REQUIRES(device_mutex_);
  bool TakeFromCache() KORVANE_REQUIRES(device_mutex_);
  void Probe() KORVANE_REQUIRES(device_mutex_);
  static std::optional<CanfdDeviceInfo> FindInCache(const std::string& serial_number)
      KORVANE_REQUIRES(device_mutex_);
  int Open() KORVANE_REQUIRES(device_mutex_);
  int Close() KORVANE_REQUIRES(device_mutex_);
  bool OpenPhysicalDevice() KORVANE_REQUIRES(device_mutex_);
  void AbandonDevice() const KORVANE_REQUIRES(device_mutex_);
  bool InitialiseChannel() KORVANE_REQUIRES(device_mutex_);
  bool StartChannel() KORVANE_REQUIRES(device_mutex_);
  bool ResetChannel() KORVANE_REQUIRES(device_mutex_);
  bool ClosePhysicalDevice() KORVANE_REQUIRES(device_mutex_);
  int SetParameter(std::uint32_t command, int value) const KORVANE_REQUIRES(device_mutex_);

  std::string Place() const;

  /// OpenDevice was tried and CloseDevice hasn't run since.
  bool attempted_ KORVANE_GUARDED_BY(device_mutex_) = false;
};

}  // namespace talvera::korvane
