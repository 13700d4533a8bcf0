#include "world.h"

#include <stdexcept>
#include <utility>

namespace talvera::korvane::sim {
namespace {

class PortLink final : public Link {
 public:
  explicit PortLink(std::unique_ptr<VirtualBus::Port> port) : port_(std::move(port)) {}

  bool Send(const Frame& frame) override { return port_->Send(frame); }

  std::vector<Frame> Receive(std::size_t capacity, std::chrono::milliseconds wait) override {
    std::vector<Frame> frames;
    std::chrono::nanoseconds left = wait;
    while (frames.size() < capacity) {
      const auto frame = port_->Receive(left);
      if (!frame) break;
      frames.push_back(*frame);
      left = std::chrono::nanoseconds(0);
    }
    return frames;
  }

  void Close() override { port_->Close(); }

 private:
  std::unique_ptr<VirtualBus::Port> port_;
};

void CheckRange(const char* what, std::size_t value, std::size_t limit) {
  if (value >= 1 && value <= limit) return;
  throw std::invalid_argument(std::string("the number of ") + what + " must be 1 to " +
                              std::to_string(limit) + ", not " + std::to_string(value));
}

}  // namespace

std::shared_ptr<Link> MakeLink(VirtualBus& bus) { return std::make_shared<PortLink>(bus.Open()); }

World::World(const AdapterOptions& options, Clock& clock) : options_(options) {
  CheckRange("adapters", options.adapters, 8);
  CheckRange("channels", options.channels, 16);
  for (std::size_t i = 0; i < options.adapters * options.channels; ++i) {
    buses_.emplace_back(clock, options.seed + i);
  }
}

VirtualBus& World::Bus(std::size_t adapter, std::size_t channel) {
  if (adapter >= options_.adapters || channel >= options_.channels) {
    throw std::out_of_range("there is no channel " + std::to_string(channel) + " on an adapter " +
                            std::to_string(adapter));
  }
  return buses_[adapter * options_.channels + channel];
}

std::size_t World::Count(AdapterKind) { return options_.adapters; }

std::optional<AdapterInfo> World::Info(AdapterKind kind, std::size_t adapter) {
  if (adapter >= options_.adapters) return std::nullopt;
  const bool zlg = kind == AdapterKind::kZlg;
  return AdapterInfo{(zlg ? "SIM-ZLG-000" : "SIM-HCAN-000") + std::to_string(adapter),
                     zlg ? "Simulated USBCANFD" : "Simulated HCAN",
                     static_cast<std::uint8_t>(options_.channels), options_.clock_hz};
}

std::shared_ptr<Link> World::Attach(std::size_t adapter, std::size_t channel) {
  if (adapter >= options_.adapters || channel >= options_.channels) return nullptr;
  return MakeLink(Bus(adapter, channel));
}

}  // namespace talvera::korvane::sim
