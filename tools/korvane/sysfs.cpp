#include "sysfs.h"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace korvane_tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsbDevices = "/sys/bus/usb/devices";

char At(const std::string& text, std::size_t index) {
  return index < text.size() ? text[index] : '\0';
}

/// "PCAN-USB", "USBCANFD-200U", "candleLight", and neither "SCANNER" nor "Canon" nor "American".
bool SaysCan(const std::string& name) {
  for (std::size_t i = 0; i + 3 <= name.size(); ++i) {
    const std::string word = name.substr(i, 3);
    const bool is_inside = i > 0 && std::isalpha(static_cast<unsigned char>(name[i - 1])) != 0;
    if (word == "CAN" && (i == 0 || name[i - 1] != 'S')) return true;
    const std::string tail = {At(name, i + 3), At(name, i + 4)};
    if ((word == "can" || word == "Can") && !is_inside && tail != "on" && tail != "ad") return true;
  }
  return false;
}

/// An interface of a device is a folder of its own, "1-4:1.0" in "1-4".
void ReadInterfaces(const fs::path& device, UsbDevice& usb) {
  for (const std::string& name : NamesIn(device)) {
    if (name.find(':') == std::string::npos) continue;
    if (usb.driver.empty()) usb.driver = TargetName(device / name / "driver");
    if (usb.modalias.empty()) usb.modalias = ReadLine(device / name / "modalias");
  }
}

UsbDevice ReadDevice(const Machine& machine, const fs::path& device) {
  UsbDevice usb;
  usb.vendor_id = ReadLine(device / "idVendor");
  usb.product_id = ReadLine(device / "idProduct");
  usb.serial = ReadLine(device / "serial");
  const std::string maker = ReadLine(device / "manufacturer");
  const std::string product = ReadLine(device / "product");
  usb.name = maker + (maker.empty() || product.empty() ? "" : " ") + product;
  const int bus = std::atoi(ReadLine(device / "busnum").c_str());
  const int number = std::atoi(ReadLine(device / "devnum").c_str());
  usb.node = fmt::format("/dev/bus/usb/{:03}/{:03}", bus, number);
  usb.may_be_opened = access(machine(usb.node).c_str(), R_OK | W_OK) == 0;
  ReadInterfaces(device, usb);
  return usb;
}

}  // namespace

std::string ReadLine(const fs::path& file) {
  std::ifstream input(file);
  std::string line;
  std::getline(input, line);
  while (!line.empty() && std::isspace(static_cast<unsigned char>(line.back())) != 0) {
    line.pop_back();
  }
  // A device names itself; its name goes to a terminal.
  for (char& letter : line)
    letter = std::iscntrl(static_cast<unsigned char>(letter)) ? '?' : letter;
  return line;
}

std::vector<std::string> NamesIn(const fs::path& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    names.push_back(at->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string TargetName(const fs::path& link) {
  std::error_code error;
  return fs::read_symlink(link, error).filename().string();
}

std::string UsbDevice::Describe() const {
  return fmt::format("{} ({}:{})", name.empty() ? "USB device" : name, vendor_id, product_id);
}

std::string UsbDevice::UdevMatch(const char* attribute) const {
  std::string match = fmt::format("{0}{{idVendor}}==\"{1}\", {0}{{idProduct}}==\"{2}\"", attribute,
                                  vendor_id, product_id);
  const bool can_be_quoted = serial.find_first_of("\"'\\*?[|") == std::string::npos;
  if (!serial.empty() && can_be_quoted) {
    match += fmt::format(", {}{{serial}}==\"{}\"", attribute, serial);
  }
  return match;
}

std::optional<UsbDevice> UsbDeviceAt(const Machine& machine, const fs::path& path) {
  std::error_code error;
  fs::path at = fs::canonical(path, error);
  for (; !error && at.has_relative_path(); at = at.parent_path()) {
    if (fs::exists(at / "idVendor", error)) return ReadDevice(machine, at);
  }
  return std::nullopt;
}

std::vector<UsbDevice> UsbCanDevices(const Machine& machine) {
  std::vector<UsbDevice> devices;
  for (const std::string& name : NamesIn(machine(kUsbDevices))) {
    if (name.find(':') != std::string::npos) continue;
    UsbDevice usb = ReadDevice(machine, machine(kUsbDevices) / name);
    if (SaysCan(usb.name)) devices.push_back(std::move(usb));
  }
  return devices;
}

std::string UdevCommand(const std::string& subsystem, const std::string& rule,
                        const std::string& file) {
  return fmt::format(
      "echo 'SUBSYSTEM==\"{0}\", {1}' | sudo tee -a /etc/udev/rules.d/{2} && "
      "sudo udevadm control --reload && "
      "sudo udevadm trigger --action=add --subsystem-match={0}",
      subsystem, rule, file);
}

bool UserIsIn(const std::string& group) {
  const passwd* const user = getpwuid(getuid());
  const struct group* const members = getgrnam(group.c_str());
  if (user == nullptr || members == nullptr) return false;
  if (user->pw_gid == members->gr_gid) return true;
  for (char** member = members->gr_mem; *member != nullptr; ++member) {
    if (std::string(*member) == user->pw_name) return true;
  }
  return false;
}

}  // namespace korvane_tool
