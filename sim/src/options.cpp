#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <stdexcept>

#include "socket_protocol.h"

namespace talvera::korvane::sim {
namespace {

constexpr const char* kAbout =
    "Simulated Korvane hands where real ones would be: on a SocketCAN interface, behind stand-ins\n"
    "of the adapter libraries libusbcanfd.so and libcanbus.so, or on a serial port.";

constexpr const char* kFooter =
    "A hand is MODEL[:ID][@PLACE]. ID is 1 to 127, decimal or 0x hexadecimal, and 1 if it is left\n"
    "out. PLACE is a CAN interface or ADAPTER.CHANNEL, both counted from 0; without it the hand\n"
    "stands on every interface and on channel 0 of adapter 0. Hands of several models share a bus\n"
    "as long as their ids differ. Without --hand there is brisa:1, unless only --serial is asked\n"
    "for. --model is another name of --hand. Hands brisa and lumen also answer service\n"
    "commands on identifier 9, all hands of a bus at once.\n"
    "A hand on a serial line is brisa[:ID][@LINK]. Its port is a pseudo-terminal, whose path is\n"
    "told. LINK becomes a symbolic link to it, which stays the same when the port is unplugged\n"
    "and plugged in again.\n"
    "Each channel is one bus that both adapter libraries reach. Adapter 0 is SIM-ZLG-0000 for the\n"
    "one and SIM-HCAN-0000 for the other.\n"
    "\n"
    "STAGE of an update is upgrade, packet, finish, restart or result; @N means the Nth reply of\n"
    "that stage, without it each of them.\n"
    "\n"
    "Programs find the stand-ins in LD_LIBRARY_PATH=<libdir>/korvane-sim and the simulator at\n"
    "$KORVANE_SIM_SOCKET, or at its default path if that is not set. Ctrl-C ends the simulator.\n"
    "\n"
    "Examples:\n"
    "  korvane-sim --hand brisa:1 --hand brisa:0x27@0.1\n"
    "      two hands on two channels of one simulated USB adapter\n"
    "  korvane-sim --model tessel --model quill:0x21\n"
    "      two hands of different models on one bus\n"
    "  korvane-sim --can vcan0 --hand brisa:1 --loss 0.01 --delay-ms 2\n"
    "      a hand on the interface vcan0 that loses one frame in a hundred\n"
    "  korvane-sim --serial brisa:1@/tmp/hand-tty\n"
    "      a hand on the serial port /tmp/hand-tty\n";

/// How many letters must change for one word to become the other.
std::size_t Distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
    }
  }
  return row.back();
}

std::string UnknownOption(const CLI::App& app) {
  const auto rest = app.remaining();
  if (rest.empty()) return "the command line makes no sense; see --help";
  const std::string word = rest.front().substr(0, rest.front().find('='));
  std::string nearest;
  std::string all;
  for (const CLI::Option* option : app.get_options()) {
    for (const std::string& long_name : option->get_lnames()) {
      const std::string name = "--" + long_name;
      all += (all.empty() ? "" : ", ") + name;
      if (nearest.empty() || Distance(word, name) < Distance(word, nearest)) nearest = name;
    }
  }
  if (Distance(word, nearest) <= 3) return "no option " + word + "; did you mean " + nearest + "?";
  return "no option " + word + "; there are " + all;
}

void CheckPlace(const Options& options, const HandSpec& hand) {
  const auto& interfaces = options.can_interfaces;
  if (hand.place.empty() ||
      std::find(interfaces.begin(), interfaces.end(), hand.place) != interfaces.end()) {
    return;
  }
  for (std::size_t a = 0; options.serves_adapters && a < options.adapters.adapters; ++a) {
    for (std::size_t c = 0; c < options.adapters.channels; ++c) {
      if (hand.place == std::to_string(a) + "." + std::to_string(c)) return;
    }
  }
  std::string places;
  for (const auto& name : interfaces) places += (places.empty() ? "" : ", ") + name;
  if (options.serves_adapters) {
    places += (places.empty() ? "" : ", ") + std::string("0.0 to ") +
              std::to_string(options.adapters.adapters - 1) + "." +
              std::to_string(options.adapters.channels - 1);
  }
  throw std::invalid_argument("no place '" + hand.place + "' for a hand; there are " + places);
}

bool SharePlace(const HandSpec& a, const HandSpec& b) {
  const auto everywhere = [](const HandSpec& hand) { return hand.place.empty(); };
  return a.place == b.place || everywhere(a) || everywhere(b);
}

void CheckIds(const std::vector<HandSpec>& hands) {
  for (auto a = hands.begin(); a != hands.end(); ++a) {
    for (auto b = a + 1; b != hands.end(); ++b) {
      if (a->device_id != b->device_id || !SharePlace(*a, *b)) continue;
      throw std::invalid_argument("two hands with id " + std::to_string(a->device_id) +
                                  " on one bus; give each an id or a place of its own");
    }
  }
}

HandSpec ParseSerialHand(const std::string& text) {
  HandSpec hand = ParseHand(text);
  if (HasSerialPort(*hand.model)) return hand;
  throw std::invalid_argument("a " + std::string(hand.model->name) +
                              " has no serial port; a brisa has one");
}

void AddLinkOptions(CLI::App& app, Options& options) {
  app.add_option("--can", options.can_interfaces, "Serve a SocketCAN interface, repeatable")
      ->type_name("IFACE")
      ->expected(1)
      ->take_all();
  app.add_flag("--adapters", options.serves_adapters,
               "Serve the stand-in adapter libraries (the default without --can and --serial)");
  app.add_flag_callback(
      "--paced", [&options] { options.bit_rates.emplace(); },
      "Frames take the time of a bus with 1 and 5 Mbit/s, one after another");
  app.add_option_function<std::vector<std::string>>(
         "--serial",
         [&options](const std::vector<std::string>& texts) {
           for (const auto& text : texts) options.serial_hands.push_back(ParseSerialHand(text));
         },
         "Serve a hand on a serial port, repeatable")
      ->type_name("brisa[:ID][@LINK]")
      ->expected(1)
      ->take_all();
  app.add_option("--socket", options.socket_path, "Where to: default " + SocketPath())
      ->type_name("PATH");
  AdapterOptions& adapters = options.adapters;
  app.add_option("--adapter-count", adapters.adapters, "Adapters, default 1")
      ->check(CLI::Range(1, 8));
  app.add_option("--channels", adapters.channels, "Channels of each, default 2")
      ->check(CLI::Range(1, 16));
  app.add_option("--clock-hz", adapters.clock_hz,
                 "Clock that HCAN adapters tell, default 80000000; 0 for unknown")
      ->check(CLI::Range(0, 1000000000));
}

/// CLI11's own lets "nan" through, which lies beyond no limit.
CLI::Validator RealWithin(double least, double greatest) {
  const CLI::Range range(least, greatest);
  return CLI::Validator(
      [range](const std::string& text) {
        const bool is_nan = std::isnan(std::strtod(text.c_str(), nullptr));
        return is_nan ? text + " is no number" : range(text);
      },
      range.get_description());
}

std::chrono::nanoseconds Milliseconds(double ms) {
  return std::chrono::nanoseconds(static_cast<std::int64_t>(ms * 1e6));
}

void AddFaultOptions(CLI::App& app, Options& options) {
  const char* const group = "Faults";
  Faults& faults = options.faults;
  const auto add_share = [&](const char* name, double& value, const char* text) {
    app.add_option(name, value, text)->check(RealWithin(0.0, 1.0))->group(group);
  };
  const auto add_time = [&](const char* name, std::chrono::nanoseconds& value, const char* text) {
    app.add_option_function<double>(
           name, [&value](double ms) { value = Milliseconds(ms); }, text)
        ->check(RealWithin(0.0, 60000.0))
        ->group(group);
  };
  add_share("--loss", faults.loss, "Share of frames that vanish");
  add_share("--duplicate", faults.duplicate, "Share of replies that come twice");
  add_share("--reorder", faults.reorder, "Share of replies that others overtake");
  add_share("--foreign", faults.foreign, "Share of replies before which another device speaks");
  add_time("--delay-ms", faults.delay, "How late every reply comes");
  add_time("--jitter-ms", faults.jitter, "How much later at most, at random");
  app.add_option("--silent-after", faults.silent_after, "Replies after which the hands are silent")
      ->type_name("COUNT")
      ->group(group);
  app.add_option("--seed", options.adapters.seed, "Start of the random numbers, default 1")
      ->group(group);
}

/// The faults of buses strike serial lines as well, as far as they can happen there.
void AddSerialFaultOptions(CLI::App& app, Options& options) {
  const char* const group = "Faults of serial lines";
  SerialFaults& faults = options.serial_faults;
  const auto add_time = [&](const char* name, const char* text, auto set) {
    app.add_option_function<double>(
           name, [set](double ms) { set(Milliseconds(ms)); }, text)
        ->check(RealWithin(0.0, 60000.0))
        ->group(group);
  };
  app.add_option("--serial-junk", faults.junk, "Share of replies with noise before them")
      ->check(RealWithin(0.0, 1.0))
      ->group(group);
  app.add_option("--serial-bad-crc", faults.bad_checksum, "Share of replies with a wrong CRC")
      ->check(RealWithin(0.0, 1.0))
      ->group(group);
  app.add_flag("--serial-merge", faults.merge, "An upload comes in one piece with each reply")
      ->group(group);
  add_time("--serial-split-ms", "Pause after each byte of a reply",
           [&faults](std::chrono::nanoseconds time) { faults.split = time; });
  app.add_option("--serial-unplug-after", faults.unplug_after,
                 "Frames from the host after which the port is gone")
      ->type_name("COUNT")
      ->group(group);
  add_time("--serial-replug-ms", "When it comes back; without this it doesn't",
           [&faults](std::chrono::nanoseconds time) { faults.replug_after = time; });
}

constexpr const char* kUpdateGroup = "Firmware updates";

void AddUpdateOptions(CLI::App& app, Options& options) {
  FirmwarePartition& firmware = options.firmware;
  app.add_option_function<std::string>(
         "--firmware-version",
         [&options](const std::string& text) { options.firmware_version = ParseVersion(text); },
         "What hands run at first, default 1.0.0")
      ->type_name("A.B.C[.D]")
      ->group(kUpdateGroup);
  app.add_option_function<std::string>(
         "--crc",
         [&firmware](const std::string& name) {
           firmware.SetChecksum(name == "xmodem" ? UpdateChecksum::kXmodem
                                                 : UpdateChecksum::kModbus);
         },
         "Checksum that hands accept, default modbus; on a serial line the version rules")
      ->check(CLI::IsMember({"modbus", "xmodem"}))
      ->group(kUpdateGroup);
  app.add_option_function<double>(
         "--restart-ms", [&firmware](double ms) { firmware.SetRestartTime(Milliseconds(ms)); },
         "How long a hand is silent while it restarts, default 2000")
      ->check(RealWithin(0.0, 600000.0))
      ->group(kUpdateGroup);
}

void AddUpdateFaultOptions(CLI::App& app, FirmwarePartition& firmware) {
  const auto add_fault = [&](const char* name, UpdateFault::Kind kind, const char* type,
                             const char* text) {
    app.add_option_function<std::vector<std::string>>(
           name,
           [&firmware, kind](const std::vector<std::string>& texts) {
             for (const auto& fault : texts) firmware.AddFault(ParseUpdateFault(kind, fault));
           },
           text)
        ->type_name(type)
        ->expected(1)
        ->take_all()
        ->group(kUpdateGroup);
  };
  add_fault("--update-status", UpdateFault::Kind::kStatus, "STAGE:STATUS[@N]",
            "Refuse with a status, repeatable");
  add_fault("--update-lose", UpdateFault::Kind::kLose, "STAGE[@N]", "Lose the acknowledgment");
  add_fault("--update-duplicate", UpdateFault::Kind::kDuplicate, "STAGE[@N]", "Acknowledge twice");
  add_fault("--update-reset", UpdateFault::Kind::kReset, "STAGE[@N]",
            "Restart with the old firmware instead");
}

/// Help and version count only once they are written, which a full disk refuses.
[[noreturn]] void EndAfterHelp(const CLI::App& app, const CLI::ParseError& help) {
  app.exit(help);
  if (std::cout.flush()) std::exit(EXIT_SUCCESS);
  std::cerr << "korvane-sim: the output can't be written: " << std::strerror(errno) << '\n';
  std::exit(EXIT_FAILURE);
}

void Parse(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ExtrasError&) {
    throw std::invalid_argument(UnknownOption(app));
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) EndAfterHelp(app, error);
    throw std::invalid_argument(error.what());
  }
}

}  // namespace

Options ParseOptions(int argc, char** argv) {
  Options options;
  std::vector<std::string> hands;
  CLI::App app(kAbout, "korvane-sim");
  app.set_version_flag("--version", "korvane-sim " KORVANE_SIM_VERSION);
  app.footer(kFooter);
  app.get_formatter()->column_width(34);
  app.add_option("--hand,--model", hands,
                 "A hand: MODEL[:ID][@PLACE], repeatable. Models: " + ModelNames())
      ->type_name("SPEC")
      ->expected(1)
      ->take_all();
  AddLinkOptions(app, options);
  AddFaultOptions(app, options);
  AddSerialFaultOptions(app, options);
  AddUpdateOptions(app, options);
  AddUpdateFaultOptions(app, options.firmware);
  Parse(app, argc, argv);

  const bool only_serial =
      options.can_interfaces.empty() && !options.serial_hands.empty() && hands.empty();
  options.serves_adapters |=
      (options.can_interfaces.empty() && !only_serial) || !options.socket_path.empty();
  if (options.socket_path.empty()) options.socket_path = SocketPath();
  const bool has_buses = options.serves_adapters || !options.can_interfaces.empty();
  if (hands.empty() && has_buses) hands.emplace_back("brisa:1");
  for (const auto& text : hands) {
    options.hands.push_back(ParseHand(text));
    CheckPlace(options, options.hands.back());
  }
  CheckIds(options.hands);
  return options;
}

}  // namespace talvera::korvane::sim
