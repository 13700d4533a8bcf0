#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "can/can_bus_device.h"
#include "korvane_open.h"

namespace talvera::korvane {

/// The address of the link alone, such as "zlg:0.1".
std::string LinkText(const HandAddress& address);

/// Why a CAN interface that exists can't be used for hands, although it may be opened; nothing if
/// it can. Writes no line.
std::optional<Failure> InterfaceProblem(const std::string& interface_name);

/// The CAN interfaces of this machine, up or not.
std::vector<std::string> CanInterfaces();

/// Why a path is no serial port for this process; nothing if it seems to be one. Opens nothing.
std::optional<Failure> PortProblem(const std::string& path);

/// Whether the closed library of that kind of adapters can be loaded. Writes no line.
bool AdapterLibraryIsThere(LinkKind kind);

/// "libusbcanfd.so" and the like.
const char* AdapterLibraryName(LinkKind kind);

/// A CAN link that is opened to ask who is there, and that a hand may take over.
///
/// If no hand does, a ZLG adapter that this opened is forgotten when it is closed. Otherwise it
/// would go on counting as open, and a hand that is made later would find it shut.
class AskedLink {
 public:
  AskedLink();
  ~AskedLink();
  AskedLink(const AskedLink&) = delete;
  AskedLink& operator=(const AskedLink&) = delete;

  /// Opens the link, another one first closed. Why not, if it can't be opened.
  std::optional<Failure> Open(const HandAddress& address, std::uint8_t product_type);

  CanBusDeviceBase& Bus() { return *bus_; }

  /// Gives the open link to a hand, for which nothing has happened on it yet.
  std::unique_ptr<CanBusDeviceBase> Release();

 private:
  void Close();

  std::unique_ptr<CanBusDeviceBase> bus_;
  /// The ZLG adapters that counted as open before.
  std::vector<std::uint8_t> open_before_;
};

}  // namespace talvera::korvane
