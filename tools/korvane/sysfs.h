#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "checkup.h"

// What the kernel tells in /sys, of USB devices above all.

namespace korvane_tool {

/// The first line of a file, without blanks at its end; empty if it can't be read.
std::string ReadLine(const std::filesystem::path& file);
/// The names in a folder, in order; none if there is no such folder.
std::vector<std::string> NamesIn(const std::filesystem::path& folder);
/// The name of what a link leads to, such as a device's driver; empty if there is none.
std::string TargetName(const std::filesystem::path& link);

struct UsbDevice {
  std::string vendor_id;   ///< "1d50"
  std::string product_id;  ///< "606f"
  std::string name;        ///< Manufacturer and product, as it says itself.
  std::string serial;      ///< Its serial number; may be empty.
  std::string driver;      ///< That of its first interface that has one.
  std::string modalias;    ///< What its driver is looked for by.
  std::string node;        ///< "/dev/bus/usb/001/004"
  bool may_be_opened;      ///< By this user.

  /// "candleLight (1d50:606f)"
  std::string Describe() const;
  /// 'ATTRS{idVendor}=="1d50", ATTRS{idProduct}=="606f"', with the serial number if there is one.
  std::string UdevMatch(const char* attribute) const;
};

/// The USB device that `path` of /sys belongs to.
std::optional<UsbDevice> UsbDeviceAt(const Machine& machine, const std::filesystem::path& path);

/// The USB devices whose name says that they are for CAN. The ids of all adapters there are nobody
/// knows, and some say another name.
std::vector<UsbDevice> UsbCanDevices(const Machine& machine);

/// The command that writes a udev rule for devices of `subsystem` and applies it.
std::string UdevCommand(const std::string& subsystem, const std::string& rule,
                        const std::string& file);

/// Whether `group` has this user; by what the system knows of it, not by the rights of this
/// process.
bool UserIsIn(const std::string& group);

}  // namespace korvane_tool
