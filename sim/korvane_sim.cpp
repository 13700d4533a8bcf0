#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <list>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include "can_server.h"
#include "korvane_sim/serial_hand.h"
#include "options.h"
#include "socket_server.h"
#include "util/clock.h"
#include "world.h"

namespace talvera::korvane::sim {
namespace {

constexpr int kUsageError = 2;

/// Everything that one run serves, ended in reverse order.
class Simulation {
 public:
  explicit Simulation(const Options& options) : world_(options.adapters, SystemClock()) {
    NamePlaces(options);
    for (const HandSpec& hand : options.hands) AddHand(hand, options);
    for (const auto& [place, bus] : buses_) {
      bus->SetBitRates(options.bit_rates);
      bus->SetFaults(options.faults);
    }
    Serve(options);
  }

  BusStatistics Sum() const {
    BusStatistics sum;
    for (const auto& [place, bus] : buses_) {
      const BusStatistics part = bus->Statistics();
      sum.from_hosts += part.from_hosts;
      sum.from_hands += part.from_hands;
    }
    for (const SerialHand& hand : serial_hands_) {
      const SerialStatistics part = hand.Statistics();
      sum.from_hosts += part.from_host;
      sum.from_hands += part.from_hand;
    }
    return sum;
  }

 private:
  void NamePlaces(const Options& options) {
    for (const auto& name : options.can_interfaces) {
      can_buses_.emplace_back(options.adapters.seed + 1000 + can_buses_.size());
      if (!buses_.emplace(name, &can_buses_.back()).second) {
        throw std::runtime_error("--can " + name + " is there twice");
      }
      default_places_.push_back(name);
    }
    if (!options.serves_adapters) return;
    default_places_.emplace_back("0.0");
    for (std::size_t a = 0; a < options.adapters.adapters; ++a) {
      for (std::size_t c = 0; c < options.adapters.channels; ++c) {
        buses_[std::to_string(a) + "." + std::to_string(c)] = &world_.Bus(a, c);
      }
    }
  }

  static SimulatedHand MakeHand(const HandSpec& spec, const Options& options) {
    SimulatedHand hand(*spec.model, spec.device_id);
    hand.Firmware() = options.firmware;
    if (options.firmware_version) hand.GetIdentity().software_version = *options.firmware_version;
    return hand;
  }

  void AddHand(const HandSpec& spec, const Options& options) {
    const auto places = spec.place.empty() ? default_places_ : std::vector<std::string>{spec.place};
    const SimulatedHand hand = MakeHand(spec, options);
    for (const auto& place : places) buses_.at(place)->Add(hand);
  }

  void Serve(const Options& options) {
    for (const auto& name : options.can_interfaces) {
      can_servers_.emplace_back(name, *buses_.at(name));
      std::cout << "korvane-sim: ready on " << name << std::endl;
    }
    for (const HandSpec& spec : options.serial_hands) ServeSerial(spec, options);
    if (!options.serves_adapters) return;
    socket_server_.emplace(options.socket_path, world_);
    std::cout << "korvane-sim: ready at " << options.socket_path << std::endl;
  }

  void ServeSerial(const HandSpec& spec, const Options& options) {
    SerialHand& hand = serial_hands_.emplace_back(MakeHand(spec, options), spec.place,
                                                  options.adapters.seed + serial_hands_.size());
    SerialFaults faults = options.serial_faults;
    static_cast<Faults&>(faults) = options.faults;
    hand.SetFaults(faults);
    const std::string link = spec.place.empty() ? "" : spec.place + " -> ";
    std::cout << "korvane-sim: ready on " << link << hand.Device() << std::endl;
  }

  World world_;
  std::list<VirtualBus> can_buses_;
  std::map<std::string, VirtualBus*> buses_;  ///< By the name of their place.
  std::vector<std::string> default_places_;
  std::list<CanServer> can_servers_;
  std::list<SerialHand> serial_hands_;
  std::optional<SocketServer> socket_server_;
};

/// Signals that end the program, kept from all its threads so that one wait takes them.
sigset_t BlockEndSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, number);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  return signals;
}

/// The number of a stream that is closed would otherwise go to a port or a socket, and every text
/// with it. Only for reading, so that writing still fails.
void TakeNumbersOfClosedStreams() {
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
}

int Run(int argc, char** argv) {
  TakeNumbersOfClosedStreams();
  const Options options = ParseOptions(argc, argv);
  const sigset_t signals = BlockEndSignals();
  BusStatistics sum;
  {
    const Simulation simulation(options);
    int number = 0;
    sigwait(&signals, &number);
    sum = simulation.Sum();
  }
  std::cout << "korvane-sim: stopped after " << sum.from_hosts << " frames from hosts and "
            << sum.from_hands << " from hands" << std::endl;
  return EXIT_SUCCESS;
}

}  // namespace
}  // namespace talvera::korvane::sim

int main(int argc, char** argv) {
  try {
    return talvera::korvane::sim::Run(argc, argv);
  } catch (const std::invalid_argument& error) {
    std::cerr << "korvane-sim: " << error.what() << "\n";
    return talvera::korvane::sim::kUsageError;
  } catch (const std::exception& error) {
    std::cerr << "korvane-sim: " << error.what() << "\n";
    return EXIT_FAILURE;
  }
}
