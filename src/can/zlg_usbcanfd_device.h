#pragma once

#include <array>
#include <map>
#include <optional>
#include <string>

#include "can/usb_can_adapter.h"

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
  std::mutex scan_cache_mutex_;
  std::map<std::uint8_t, CanfdDeviceInfo> canfd_device_info_cache;
  bool cache_valid_ = false;
};

CanfdDeviceTable& CanfdDevices();

/// One channel of a ZLG USBCANFD adapter, through the closed library libusbcanfd. The last channel
/// that is closed closes the device, so hands on one adapter may come and go in any order.
///
/// Lock order: `device_mutex_`, then `scan_cache_mutex_`.
class ZlgUsbcanfdDevice : public UsbCanAdapter {
 public:
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
  /// entries. The caller holds `device_mutex_`.
  static void Scan();

  std::uint32_t device_type_ = 0;

  static std::mutex device_mutex_;

 private:
  // The caller of all these holds `device_mutex_`.
  void OpenAndReceive();
  bool TakeFromCache();
  void Probe();
  static std::optional<CanfdDeviceInfo> FindInCache(const std::string& serial_number);
  int Open();
  bool OpenPhysicalDevice();
  void AbandonDevice() const;
  bool InitialiseChannel();
  bool StartChannel();
  bool ResetChannel();
  bool ClosePhysicalDevice();
  int SetParameter(std::uint32_t command, int value) const;

  std::string Place() const;

  /// OpenDevice was tried and CloseDevice hasn't run since.
  bool attempted_ = false;
};

}  // namespace talvera::korvane
