#pragma once

#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"
#include "serial_line.h"
#include "simulated_end.h"
#include "support.h"

namespace talvera::korvane::fuzz {

/// A Brisa on a pseudo-terminal without a receive thread: a target hands it what arrives, while
/// the hand pauses around each write and while an update waits. By events, so that a reply that is
/// there when the write returns counts. A simulated hand is at the other end of the line.
struct SerialHand {
  SerialHand() {
    device.StopReceiving();
    device.running_ = true;
    device.frame_recv_timeout_ms_ = 0;
    device.pause_clock_ = hand.ota_clock = &clock;
    device.clock_ = &restart;
    // A port that came back would have a thread again.
    restart.on_sleep = [this](auto) { device.setPort("/nonexistent"); };
  }

  void Receive(const Bytes& bytes) {
    for (std::size_t at = 0; at < bytes.size(); at += 256) {
      device.TakeBlock(&bytes[at], std::min<std::size_t>(256, bytes.size() - at));
      Require(device.recv_buffer_pos_ <= device.recv_buffer_.size());
    }
  }

  ScriptedClock clock;
  ScriptedClock restart;
  sim::SerialLine line{""};
  KorvaneBrisaSerialImpl hand{HandType::RIGHT, kId, line.Device(), 115200};
  UsbSerialDevice& device = *hand.Device();
  SimulatedEnd end{sim::kBrisa, sim::ServiceLink::kSerial};
};

}  // namespace talvera::korvane::fuzz
