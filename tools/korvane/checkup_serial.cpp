#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

#include "checkup.h"
#include "sysfs.h"

// A serial port, from its file to its chip.

namespace korvane_tool {
namespace {

namespace fs = std::filesystem;

struct Port {
  const Machine& machine;
  std::string path;
  std::string device;  ///< What the path leads to in the end.
  std::string name;    ///< As /sys calls it: "ttyUSB0".
  struct stat status {};
  int error = 0;  ///< That of asking for `status`.
  std::optional<UsbDevice> usb;

  bool IsPseudoTerminal() const { return device.rfind("/dev/pts/", 0) == 0; }
};

std::optional<Finding> LookAtFile(const Port& port) {
  if (port.error == 0) return std::nullopt;
  std::string others;
  for (const std::string& path : SerialPortsOf(port.machine)) others += " " + path;
  const std::string text = port.path + ": " + std::strerror(port.error);
  if (!others.empty()) {
    return Last(Bad(text + "; there is:" + others, "ls -l /dev/serial/by-id"));
  }
  return Last(Bad(text + "; there is no USB serial port at all", "lsusb"));
}

std::optional<Finding> LookAtKind(const Port& port) {
  if (!S_ISCHR(port.status.st_mode)) {
    return Last(Bad(port.path + " is a file, and no serial port", "ls -l /dev/serial/by-id"));
  }
  return std::nullopt;
}

std::optional<Finding> LookAtChip(const Port& port) {
  if (port.usb) return Ok(port.usb->Describe());
  if (port.IsPseudoTerminal()) return Ok("a pseudo-terminal of a program");
  if (ReadLine(port.machine("/sys/class/tty") / port.name / "type") == "0") {
    return Last(Bad(port.name + " is the name of a port that this machine doesn't have",
                    "ls -l /dev/serial/by-id"));
  }
  return Ok(port.name + " is no USB port; korvane find asks it only where it is named");
}

std::optional<Finding> LookAtPermission(const Port& port) {
  if (access(port.path.c_str(), R_OK | W_OK) == 0) return Ok("this user may read and write it");
  const struct group* const owner = getgrgid(port.status.st_gid);
  const bool group_may = (port.status.st_mode & 0060U) == 0060U && port.status.st_gid != 0;
  const std::string group = owner != nullptr && group_may ? owner->gr_name : "dialout";
  const std::string text = "this user may not read and write it";
  if (group_may && UserIsIn(group)) {
    return Last(Bad(text + "; the group " + group + " is new to this session", "newgrp " + group));
  }
  return Last(Bad(text, fmt::format("sudo usermod -aG {} $USER && newgrp {}", group, group)));
}

// --- Other programs -------------------------------------------------------------------------

struct Program {
  std::string pid;
  std::string name;
};

/// Whether it has the port open, and isn't the one that made it: who made a pseudo-terminal has it
/// open by both ends.
bool HoldsPort(const fs::path& process, const Port& port) {
  bool holds = false;
  for (const std::string& number : NamesIn(process / "fd")) {
    std::error_code error;
    const std::string target = fs::read_symlink(process / "fd" / number, error).string();
    if (port.IsPseudoTerminal() && target.find("ptmx") != std::string::npos) return false;
    holds = holds || target == port.device;
  }
  return holds;
}

/// The processes of this user; those of others tell nothing, unless this is the administrator.
std::vector<Program> ProgramsOn(const Port& port) {
  std::vector<Program> programs;
  for (const std::string& pid : NamesIn(port.machine("/proc"))) {
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    const fs::path process = port.machine("/proc") / pid;
    if (pid != std::to_string(getpid()) && HoldsPort(process, port)) {
      programs.push_back({pid, ReadLine(process / "comm")});
    }
  }
  return programs;
}

/// 0 if the port can be had, otherwise errno; ENOTTY if it is no terminal.
int Claim(const Port& port) {
  const int descriptor = open(port.path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  if (descriptor < 0) return errno;
  int error = 0;
  termios settings{};
  if (tcgetattr(descriptor, &settings) != 0 || flock(descriptor, LOCK_EX | LOCK_NB) != 0) {
    error = errno;
  }
  close(descriptor);
  return error;
}

Finding InUse(const std::vector<Program>& programs, bool is_claimed, const Port& port) {
  if (programs.empty()) {
    return Bad("another program has the port", "sudo fuser -v " + port.path);
  }
  std::string names;
  for (const Program& program : programs) {
    names += fmt::format("{}{} ({})", names.empty() ? "" : ", ", program.name, program.pid);
  }
  const std::string command = "kill " + programs.front().pid;
  if (is_claimed) return Bad(names + " has the port", command);
  return Warning(names + " has the port open, too, and takes a part of the bytes", command);
}

std::optional<Finding> LookAtUse(const Port& port) {
  const int error = Claim(port);
  if (error == ENOTTY) {
    return Last(Bad(port.path + " is a device, and no serial port", "ls -l /dev/serial/by-id"));
  }
  const bool is_claimed = error == EBUSY || error == EWOULDBLOCK;
  const auto programs = ProgramsOn(port);
  if (is_claimed || !programs.empty()) return InUse(programs, is_claimed, port);
  if (error != 0) return Bad(fmt::format("can't be opened: {}", std::strerror(error)));
  return Ok("no other program has it");
}

std::optional<Finding> LookAtLatency(const Port& port) {
  const std::string told =
      ReadLine(port.machine("/sys/bus/usb-serial/devices") / port.name / "latency_timer");
  if (told.empty()) return std::nullopt;
  const std::string text = fmt::format("the chip hands bytes on after {} ms", told);
  if (std::atoi(told.c_str()) <= 1) return Ok(text);
  const std::string driver =
      TargetName(port.machine("/sys/bus/usb-serial/devices") / port.name / "driver");
  const std::string whose =
      port.usb ? port.usb->UdevMatch("ATTRS") : fmt::format("KERNEL==\"{}\"", port.name);
  const std::string rule = fmt::format(
      "ACTION==\"add\", DRIVER==\"{}\", {}, ATTR{{latency_timer}}=\"1\"", driver, whose);
  return Warning(text + ", which each reply waits for",
                 UdevCommand("usb-serial", rule, "61-korvane-serial.rules"));
}

const std::vector<Check<Port>>& PortChecks() {
  static const std::vector<Check<Port>> checks{
      {"port", &LookAtFile}, {"port", &LookAtKind},
      {"chip", &LookAtChip}, {"permission", &LookAtPermission},
      {"use", &LookAtUse},   {"latency", &LookAtLatency},
  };
  return checks;
}

Port Look(const Machine& machine, const std::string& path) {
  Port port{machine, path, "", "", {}, 0, std::nullopt};
  port.error = stat(path.c_str(), &port.status) == 0 ? 0 : errno;
  std::error_code error;
  port.device = fs::canonical(path, error).string();
  const auto is_known = [&](const std::string& name) {
    return fs::exists(machine("/sys/class/tty") / name, error);
  };
  port.name = fs::path(port.device).filename().string();
  if (const std::string own = fs::path(path).filename().string(); !is_known(port.name)) {
    if (is_known(own)) port.name = own;
  }
  port.usb = UsbDeviceAt(machine, machine("/sys/class/tty") / port.name / "device");
  return port;
}

}  // namespace

std::vector<std::string> SerialPortsOf(const Machine& machine) {
  std::vector<std::string> ports;
  std::set<fs::path> seen;
  const auto add = [&](const std::string& folder, const std::string& prefix) {
    for (const std::string& name : NamesIn(machine(folder))) {
      std::error_code error;
      const fs::path device = fs::canonical(machine(folder) / name, error);
      const bool is_new = name.rfind(prefix, 0) == 0 && !error && seen.insert(device).second;
      if (is_new) ports.push_back((machine(folder) / name).string());
    }
  };
  add("/dev/serial/by-id", "");
  add("/dev", "ttyUSB");
  add("/dev", "ttyACM");
  return ports;
}

void ExamineSerial(const Machine& machine, const HandAddress& address, Checkup& checkup) {
  checkup.Run(PortChecks(), Look(machine, address.port));
}

}  // namespace korvane_tool
