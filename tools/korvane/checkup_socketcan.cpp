#include <fmt/format.h>
#include <linux/can.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "checkup.h"
#include "child.h"
#include "sysfs.h"

// A CAN interface of Linux, by what `ip` and /sys tell of it.

namespace korvane_tool {
namespace {

namespace fs = std::filesystem;

constexpr const char* kInterfaces = "/sys/class/net";
constexpr const char* kCanType = "280";  // ARPHRD_CAN

constexpr double kBitRate = 1'000'000;
constexpr double kDataBitRate = 5'000'000;
constexpr double kSamplePoint = 0.8;
constexpr double kDataSamplePoint = 0.75;
/// Timings come in steps, so that no adapter can have each sample point.
constexpr double kSamplePointStep = 0.026;
/// A search and an update send more frames at once than the ten that there are at first.
constexpr int kShortQueue = 100;
/// Behind a transmitter that nobody acknowledges, and of a node that is off the bus.
constexpr double kNobodyAcknowledges = 128;

/// What is known of one interface.
struct Interface {
  const Machine& machine;
  const HandAddress& address;
  std::string name;
  bool told_by_ip = false;
  Json link;  ///< As `ip -json -details -statistics link` has it; null if there is none.

  const Json* At(const char* pointer) const {
    const Json::json_pointer path(pointer);
    return link.is_object() && link.contains(path) ? &link.at(path) : nullptr;
  }
  std::string Text(const char* pointer) const {
    const Json* const value = At(pointer);
    return value != nullptr && value->is_string() ? value->get<std::string>() : "";
  }
  /// Some versions of ip write numbers as texts.
  std::optional<double> Number(const char* pointer) const {
    const Json* const value = At(pointer);
    if (value == nullptr) return std::nullopt;
    if (value->is_number()) return value->get<double>();
    return value->is_string() ? std::optional(std::atof(value->get<std::string>().c_str()))
                              : std::nullopt;
  }
  double Count(const char* pointer) const { return Number(pointer).value_or(0); }
  bool Lists(const char* pointer, const char* word) const {
    const Json* const words = At(pointer);
    return words != nullptr && std::find(words->begin(), words->end(), word) != words->end();
  }
  bool IsUp() const { return Lists("/flags", "UP"); }
  /// A virtual one has no timings, counters and the like.
  bool IsVirtual() const {
    const std::string kind = Text("/linkinfo/info_kind");
    return told_by_ip ? kind != "can" : !fs::exists(machine(kInterfaces) / name / "device");
  }
  bool HasDetails() const { return told_by_ip && !IsVirtual(); }
};

std::string Down(const Interface& can) { return "sudo ip link set " + can.name + " down"; }
std::string Up(const Interface& can) { return "sudo ip link set " + can.name + " up"; }

/// What an interface must be down for.
std::string Reconfigure(const Interface& can, const std::string& settings) {
  const std::string change = "sudo ip link set " + can.name + " " + settings;
  return (can.IsUp() ? Down(can) + " && " : "") + change + " && " + Up(can);
}
std::string SetTimings(const Interface& can) {
  return Reconfigure(can,
                     "type can bitrate 1000000 sample-point 0.8 dbitrate 5000000 dsample-point "
                     "0.75 fd on restart-ms 100");
}
std::string SetQueue(const Interface& can) {
  return "sudo ip link set " + can.name + " txqueuelen 1000";
}

// --- The checks -----------------------------------------------------------------------------

/// The kernel loads its part for raw sockets when a program asks for one.
std::optional<Finding> LookAtKernel(const Interface& can) {
  std::ifstream protocols(can.machine("/proc/net/protocols"));
  for (std::string line; std::getline(protocols, line);) {
    if (line.rfind("CAN_RAW", 0) == 0) return Ok("CAN is there (can_raw)");
  }
  const int any = socket(PF_CAN, SOCK_RAW | SOCK_CLOEXEC, CAN_RAW);
  if (any < 0) {
    return Last(Bad(fmt::format("the kernel has no CAN: {}", std::strerror(errno)),
                    "sudo modprobe can_raw"));
  }
  close(any);
  return Ok("CAN is there (can_raw)");
}

/// Where the interface is missing: an adapter that is plugged in and that no driver has taken.
std::optional<Finding> LookForIdleAdapter(const Interface& can) {
  if (!can.link.is_null()) return std::nullopt;
  for (const UsbDevice& usb : UsbCanDevices(can.machine)) {
    if (!usb.driver.empty()) continue;
    const std::string text = usb.Describe() + " is plugged in, and no driver has taken it";
    const bool has_alias = usb.modalias.find('\'') == std::string::npos;
    return Warning(text, has_alias && !usb.modalias.empty()
                             ? fmt::format("sudo modprobe -v '{}'", usb.modalias)
                             : "lsusb -t");
  }
  return std::nullopt;
}

Finding NotThere(const Interface& can) {
  if (can.name.empty()) return Bad("no CAN interface");
  const auto others = CanInterfacesOf(can.machine);
  std::string text = "no interface " + can.name;
  for (const std::string& name : others)
    text += (name == others.front() ? "; there is " : ", ") + name;
  if (can.name.find("vcan") != std::string::npos) {
    return Bad(text,
               fmt::format("sudo ip link add dev {0} type vcan && sudo ip link set {0} mtu 72 "
                           "&& sudo ip link set {0} up",
                           can.name));
  }
  return Bad(text, others.empty() ? "ip link" : "korvane doctor -H " + others.front());
}

std::optional<Finding> LookAtInterface(const Interface& can) {
  if (can.link.is_null()) return Last(NotThere(can));
  if (can.Text("/link_type") != "can") {
    return Last(Bad(can.name + " is no CAN interface", "ip -details link show type can"));
  }
  const auto usb = UsbDeviceAt(can.machine, can.machine(kInterfaces) / can.name / "device");
  const std::string driver = TargetName(can.machine(kInterfaces) / can.name / "device" / "driver");
  std::string text = usb ? usb->Describe() : can.IsVirtual() ? "a virtual bus" : "an adapter";
  return Ok(text + (driver.empty() ? "" : ", driver " + driver));
}

std::optional<Finding> LookAtIp(const Interface& can) {
  if (can.told_by_ip) return std::nullopt;
  return Unknown("`ip -json -details` isn't to be had, so bit rates and counters can't be seen",
                 "sudo apt install iproute2");
}

std::optional<Finding> LookAtUp(const Interface& can) {
  if (can.IsUp()) return Ok("up");
  const bool has_timings =
      !can.HasDetails() || can.Count("/linkinfo/info_data/bittiming/bitrate") > 0;
  return Bad("the interface is down", has_timings ? Up(can) : SetTimings(can));
}

std::optional<Finding> LookAtFd(const Interface& can) {
  if (!can.HasDetails()) return std::nullopt;
  if (can.Lists("/linkinfo/info_data/ctrlmode", "FD")) return Ok("CAN FD is on");
  return Bad("CAN FD is off", SetTimings(can));
}

std::optional<Finding> LookAtMtu(const Interface& can) {
  const auto mtu = can.Number("/mtu");
  if (!mtu) return Unknown("the interface doesn't tell its MTU");
  if (*mtu >= CANFD_MTU) return Ok(fmt::format("MTU {}", *mtu));
  return Bad(fmt::format("MTU {}, so that it carries no CAN FD frames", *mtu),
             can.IsVirtual() ? Reconfigure(can, "mtu 72") : SetTimings(can));
}

/// One of the two timings of an interface.
struct Timing {
  const char* rate;
  const char* fixed_rate;  ///< Of an adapter that has a choice of rates and nothing else.
  const char* sample_point;
  double wanted_rate;
  double wanted_sample_point;
};
constexpr Timing kArbitration = {
    "/linkinfo/info_data/bittiming/bitrate", "/linkinfo/info_data/bittiming_bitrate",
    "/linkinfo/info_data/bittiming/sample_point", kBitRate, kSamplePoint};
constexpr Timing kData = {
    "/linkinfo/info_data/data_bittiming/bitrate", "/linkinfo/info_data/data_bittiming_bitrate",
    "/linkinfo/info_data/data_bittiming/sample_point", kDataBitRate, kDataSamplePoint};

template <const Timing& timing>
std::optional<Finding> LookAtRate(const Interface& can) {
  if (!can.HasDetails()) return std::nullopt;
  const auto rate =
      can.Number(timing.rate) ? can.Number(timing.rate) : can.Number(timing.fixed_rate);
  if (!rate || *rate == 0) return Bad("no bit rate is set", SetTimings(can));
  const std::string text = fmt::format("{} Mbit/s", *rate / 1e6);
  if (*rate == timing.wanted_rate) return Ok(text);
  return Bad(fmt::format("{}; hands need {}", text, timing.wanted_rate / 1e6), SetTimings(can));
}

template <const Timing& timing>
std::optional<Finding> LookAtSamplePoint(const Interface& can) {
  const auto point = can.Number(timing.sample_point);
  if (!point || *point == 0) return std::nullopt;
  const std::string text = fmt::format("sampled at {:.1f} %", *point * 100);
  const auto is_near = [&](double wanted) { return std::abs(*point - wanted) < kSamplePointStep; };
  // A Tessel also runs with its data sampled later.
  const bool fits_tessel = can.address.model == Model::TESSEL && is_near(kSamplePoint);
  if (is_near(timing.wanted_sample_point) || fits_tessel) return Ok(text);
  return Warning(fmt::format("{}; hands need {:.0f} %", text, timing.wanted_sample_point * 100),
                 SetTimings(can));
}

std::optional<Finding> LookAtQueue(const Interface& can) {
  const auto length = can.Number("/txqlen");
  if (!length) return std::nullopt;
  if (*length >= kShortQueue) return Ok(fmt::format("room for {} frames", *length));
  return Warning(fmt::format("room for {} frames, and more may be sent at once", *length),
                 SetQueue(can));
}

std::optional<Finding> LookAtState(const Interface& can) {
  const std::string state = can.Text("/linkinfo/info_data/state");
  if (state.empty() || !can.IsUp()) return std::nullopt;
  if (state == "ERROR-ACTIVE") return Ok(state);
  if (state == "BUS-OFF") {
    return Bad(
        "BUS-OFF: after too many errors the adapter has left the bus; mend the cable, the "
        "termination or the bit rates of the others first",
        Down(can) + " && " + Up(can));
  }
  if (state == "STOPPED" || state == "SLEEPING") return Bad(state, Down(can) + " && " + Up(can));
  return Warning(state + ": there are errors on the bus; see error_counters");
}

std::optional<Finding> LookAtErrorCounters(const Interface& can) {
  const auto sent = can.Number("/linkinfo/info_data/berr_counter/tx");
  const auto received = can.Number("/linkinfo/info_data/berr_counter/rx");
  if (!sent || !received || !can.IsUp()) return std::nullopt;
  std::string text = fmt::format("sending {}, receiving {}", *sent, *received);
  if (*sent == 0 && *received == 0) return Ok(text);
  text += *sent >= kNobodyAcknowledges
              ? ": nobody acknowledges; is the hand powered, the cable in, and the bus terminated "
                "at both ends?"
              : ": frames are disturbed; look at the cable, the termination and the sample points";
  return Warning(text);
}

std::optional<Finding> LookAtLosses(const Interface& can) {
  const double dropped = can.Count("/stats64/tx/dropped");
  const double missed = can.Count("/stats64/rx/dropped") + can.Count("/stats64/rx/over_errors");
  const double broken =
      can.Count("/linkinfo/info_xstats/bus_error") + can.Count("/stats64/rx/errors");
  const double offs = can.Count("/linkinfo/info_xstats/bus_off");
  if (can.At("/stats64") == nullptr) return std::nullopt;
  const std::string text = fmt::format(
      "since it is there: {} frames dropped before the bus, {} after it, {} bus errors, "
      "{} times BUS-OFF",
      dropped, missed, broken, offs);
  if (dropped + missed + broken + offs == 0) return Ok(text);
  const bool queue_helps = dropped > 0 && can.Count("/txqlen") < kShortQueue;
  return Warning(text, queue_helps ? SetQueue(can) : "");
}

std::optional<Finding> LookAtRestart(const Interface& can) {
  const auto restart = can.Number("/linkinfo/info_data/restart_ms");
  if (!restart) return std::nullopt;
  if (*restart > 0) return Ok(fmt::format("back on the bus {} ms after BUS-OFF", *restart));
  return Warning("after BUS-OFF it stays off the bus", Reconfigure(can, "type can restart-ms 100"));
}

const std::vector<Check<Interface>>& InterfaceChecks() {
  static const std::vector<Check<Interface>> checks{
      {"kernel", &LookAtKernel},
      {"adapter", &LookForIdleAdapter},
      {"interface", &LookAtInterface},
      {"ip", &LookAtIp},
      {"up", &LookAtUp},
      {"fd", &LookAtFd},
      {"mtu", &LookAtMtu},
      {"bit_rate", &LookAtRate<kArbitration>},
      {"sample_point", &LookAtSamplePoint<kArbitration>},
      {"data_bit_rate", &LookAtRate<kData>},
      {"data_sample_point", &LookAtSamplePoint<kData>},
      {"queue", &LookAtQueue},
      {"state", &LookAtState},
      {"error_counters", &LookAtErrorCounters},
      {"losses", &LookAtLosses},
      {"restart", &LookAtRestart},
  };
  return checks;
}

// --- What is known --------------------------------------------------------------------------

/// By `ip`; null if it doesn't tell.
Json AskIp(const std::string& name) {
  if (name.empty()) return {};
  const auto child =
      RunChild({"ip", "-json", "-details", "-statistics", "link", "show", "dev", name});
  if (!child.succeeded) return {};
  const Json links = Json::parse(child.output, nullptr, false);
  const bool told = links.is_array() && !links.empty() && links[0].is_object();
  return told && links[0].value("ifname", Json()) == name ? links[0] : Json();
}

/// By /sys, in the same form and with less in it; null if there is no such interface.
Json AskSys(const Machine& machine, const std::string& name) {
  const fs::path folder = machine(kInterfaces) / name;
  if (name.empty() || !fs::exists(folder)) return {};
  const long flags = std::strtol(ReadLine(folder / "flags").c_str(), nullptr, 0);
  Json link{{"ifname", name}, {"flags", Json::array()}};
  if ((flags & 1) != 0) link["flags"].push_back("UP");
  link["link_type"] = ReadLine(folder / "type") == kCanType ? "can" : "other";
  link["mtu"] = ReadLine(folder / "mtu");
  link["txqlen"] = ReadLine(folder / "tx_queue_len");
  return link;
}

}  // namespace

std::vector<std::string> CanInterfacesOf(const Machine& machine) {
  std::vector<std::string> names;
  for (const std::string& name : NamesIn(machine(kInterfaces))) {
    if (ReadLine(machine(kInterfaces) / name / "type") == kCanType) names.push_back(name);
  }
  return names;
}

void ExamineSocketCan(const Machine& machine, const HandAddress& address, Checkup& checkup) {
  Interface can{machine, address, address.interface_name, true, AskIp(address.interface_name)};
  if (can.link.is_null()) {
    can.told_by_ip = false;
    can.link = AskSys(machine, can.name);
  }
  checkup.Run(InterfaceChecks(), can);
}

}  // namespace korvane_tool
