#pragma once

#include <chrono>
#include <memory>
#include <utility>

#include "can/can_bus_device.h"
#include "korvane_sim/virtual_bus.h"

namespace talvera::korvane::test {

/// The dispatch of the three adapters, to run one test as each of them.
inline constexpr DispatchRules kLikeSocketCan{};
inline constexpr DispatchRules kLikeHcan = kHcanDispatch;

/// An adapter whose bus is in the same process.
class BusDevice : public CanBusDeviceBase {
 public:
  explicit BusDevice(sim::VirtualBus& bus, const DispatchRules& rules = kLikeSocketCan)
      : port_(bus.Open()), rules_(rules) {
    StartReceiveThread(recv_thread_);
  }

  ~BusDevice() override {
    stop_flag_ = true;
    port_->Close();
    StopReceiveThread(recv_thread_);
  }

  int OpenDevice() override { return 0; }

  int CloseDevice() override {
    port_->Close();
    return 0;
  }

  void RecvFrame() override {
    while (!stop_flag_) {
      const auto received = port_->Receive(std::chrono::hours(1));
      if (!received) continue;
      CanfdFrame frame;
      frame.can_id = received->id;
      frame.len = received->len;
      std::copy(received->data.begin(), received->data.end(), frame.data);
      Dispatch(frame, rules_);
    }
  }

  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override {
    sim::Frame frame;
    if (len > frame.data.size()) return -1;
    frame.id = id;
    frame.len = len;
    std::copy_n(data, len, frame.data.begin());
    return port_->Send(frame) ? 0 : -1;
  }

 private:
  std::unique_ptr<sim::VirtualBus::Port> port_;
  DispatchRules rules_;
};

}  // namespace talvera::korvane::test
