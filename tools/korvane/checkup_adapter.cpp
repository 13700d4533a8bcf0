#include <dlfcn.h>
#include <fmt/format.h>

#include "checkup.h"
#include "sysfs.h"

// A USB adapter that its vendor's library drives.

namespace korvane_tool {
namespace {

struct Adapter {
  const Machine& machine;
  const char* library;
};

std::optional<Finding> LookAtLibrary(const Adapter& adapter) {
  static_cast<void>(dlerror());
  // As the library of the hands loads it, and kept for that.
  if (dlopen(adapter.library, RTLD_NOW | RTLD_LOCAL) != nullptr) {
    return Ok(fmt::format("{} is found", adapter.library));
  }
  const char* const reason = dlerror();
  const std::string text = reason != nullptr ? reason : "not found";
  const bool is_the_file = text.rfind(adapter.library, 0) == 0;
  return Bad(fmt::format("the vendor's {} can't be loaded: {}", adapter.library, text),
             is_the_file
                 ? fmt::format("sudo cp {} /usr/local/lib/ && sudo ldconfig", adapter.library)
                 : fmt::format("ldd $(ldconfig -p | grep -o '/.*{}')", adapter.library));
}

/// One that this user may open, if there is any; its driver is the vendor's library.
std::optional<Finding> LookAtPlug(const Adapter& adapter) {
  const auto devices = UsbCanDevices(adapter.machine);
  if (devices.empty()) {
    return Unknown("no USB device that is plugged in says that it is for CAN", "lsusb");
  }
  std::string all;
  const UsbDevice* locked = nullptr;
  for (const UsbDevice& usb : devices) {
    all += (all.empty() ? "" : ", ") + usb.Describe();
    if (!usb.driver.empty()) all += ", driver " + usb.driver;
    if (!usb.may_be_opened && locked == nullptr) locked = &usb;
  }
  if (locked == nullptr) return Ok(all);
  std::string command =
      UdevCommand("usb", locked->UdevMatch("ATTR") + ", MODE=\"0660\", GROUP=\"plugdev\"",
                  "60-can-adapter.rules");
  if (!UserIsIn("plugdev")) command += " && sudo usermod -aG plugdev $USER";
  return Warning(fmt::format("{}; this user may not open {}", all, locked->node), command);
}

const std::vector<Check<Adapter>>& AdapterChecks() {
  static const std::vector<Check<Adapter>> checks{
      {"library", &LookAtLibrary},
      {"adapter", &LookAtPlug},
  };
  return checks;
}

}  // namespace

void ExamineAdapter(const Machine& machine, const HandAddress& address, Checkup& checkup) {
  const bool is_zlg = address.link == LinkKind::ZLG;
  checkup.Run(AdapterChecks(), Adapter{machine, is_zlg ? "libusbcanfd.so" : "libcanbus.so"});
}

}  // namespace korvane_tool
