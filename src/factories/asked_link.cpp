#include "factories/asked_link.h"

#include <dlfcn.h>
#include <linux/can.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "can/can_link.h"
#include "can/canbus_library.h"
#include "can/usbcanfd_library.h"
#include "can/zlg_usbcanfd_device.h"
#include "util/unique_fd.h"

namespace talvera::korvane {
namespace {

/// "no such device" and the like.
std::string Reason(int system_error) { return std::generic_category().message(system_error); }

Failure NoLink(const std::string& text, int system_error = 0) {
  return {FailureKind::NO_LINK, "", text, system_error};
}

/// One question about an interface; false if there is none of that name.
bool AskInterface(int socket_fd, const std::string& name, unsigned long question, ifreq& answer) {
  answer = {};
  name.copy(answer.ifr_name, IFNAMSIZ - 1);
  return ioctl(socket_fd, question, &answer) == 0;
}

bool IsCan(int socket_fd, const std::string& name) {
  ifreq answer;
  return AskInterface(socket_fd, name, SIOCGIFHWADDR, answer) &&
         answer.ifr_hwaddr.sa_family == ARPHRD_CAN;
}

std::unique_ptr<CanBusDeviceBase> MakeBus(const HandAddress& address, std::uint8_t product_type) {
  if (address.link == LinkKind::SOCKET_CAN) return MakeSocketCan(address.interface_name);
  const auto type =
      address.link == LinkKind::ZLG ? ECanDeviceType::ZLG_USBCANFD : ECanDeviceType::HCAN;
  if (address.adapter_index) {
    return MakeAdapter(type, *address.adapter_index, address.channel, product_type);
  }
  return MakeAdapter(type, address.adapter_serial, address.channel, product_type);
}

}  // namespace

std::string LinkText(const HandAddress& address) {
  HandAddress link = address;
  link.model.reset();
  link.id.reset();
  link.side = HandType::RIGHT;
  return link.ToString();
}

std::optional<Failure> InterfaceProblem(const std::string& name) {
  const UniqueFd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ifreq answer;
  if (!AskInterface(any.Get(), name, SIOCGIFFLAGS, answer)) return std::nullopt;
  const bool up = (answer.ifr_flags & IFF_UP) != 0;
  if (!IsCan(any.Get(), name)) return NoLink(Compose(name, " is no CAN interface"), ENODEV);
  if (!up) return NoLink(Compose(name, ": the interface is down"), ENETDOWN);
  if (AskInterface(any.Get(), name, SIOCGIFMTU, answer) &&
      answer.ifr_mtu < static_cast<int>(CANFD_MTU)) {
    return NoLink(
        Compose(name, ": the interface carries no CAN FD frames, its MTU is ", answer.ifr_mtu));
  }
  return std::nullopt;
}

std::vector<std::string> CanInterfaces() {
  std::vector<std::string> names;
  const UniqueFd any(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const std::unique_ptr<struct if_nameindex, decltype(&if_freenameindex)> interfaces(
      if_nameindex(), &if_freenameindex);
  for (auto* at = interfaces.get(); at != nullptr && at->if_index != 0; ++at) {
    if (IsCan(any.Get(), at->if_name)) names.emplace_back(at->if_name);
  }
  return names;
}

std::optional<Failure> PortProblem(const std::string& path) {
  struct stat status {};
  const bool usable = stat(path.c_str(), &status) == 0 && access(path.c_str(), R_OK | W_OK) == 0;
  int error = usable ? 0 : errno;
  if (usable && !S_ISCHR(status.st_mode)) error = ENOTTY;
  if (error == 0) return std::nullopt;
  return NoLink(Compose("Failed to open USB serial port ", path, ": ", Reason(error)), error);
}

const char* AdapterLibraryName(LinkKind kind) {
  return kind == LinkKind::ZLG ? "libusbcanfd.so" : "libcanbus.so";
}

bool AdapterLibraryIsThere(LinkKind kind) {
  const bool in_process =
      kind == LinkKind::ZLG ? &VCI_OpenDevice != nullptr : &CAN_OpenDevice != nullptr;
  if (in_process) return true;
  // Loaded as it would be for a hand, and kept loaded if it is there.
  static_cast<void>(dlerror());
  return dlopen(AdapterLibraryName(kind), RTLD_NOW | RTLD_LOCAL) != nullptr;
}

AskedLink::AskedLink() {
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  for (const auto& [index, device] : table.canfd_device_info_cache) {
    if (device.opened) open_before_.push_back(index);
  }
}

AskedLink::~AskedLink() {
  if (bus_) Close();
}

std::optional<Failure> AskedLink::Open(const HandAddress& address, std::uint8_t product_type) {
  if (bus_) Close();
  if (address.link == LinkKind::SOCKET_CAN) {
    if (auto problem = InterfaceProblem(address.interface_name)) return problem;
  }
  bus_ = MakeBus(address, product_type);
  if (bus_->IsInit()) return std::nullopt;
  return NoLink(Compose(LinkText(address), ": ", bus_->open_failure_), bus_->system_error_);
}

std::unique_ptr<CanBusDeviceBase> AskedLink::Release() {
  bus_->counters_.Clear();
  return std::move(bus_);
}

void AskedLink::Close() {
  bus_.reset();
  const MutexLock device_lock(ZlgUsbcanfdDevice::device_mutex_);
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  for (auto& [index, device] : table.canfd_device_info_cache) {
    const bool before =
        std::find(open_before_.begin(), open_before_.end(), index) != open_before_.end();
    if (!before && device.ref_count == 0) device.opened = false;
  }
}

}  // namespace talvera::korvane
