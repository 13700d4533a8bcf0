#pragma once

#include <memory>
#include <string>

#include "korvane.h"
#include "private_korvane.h"
#include "protocol/serial/reply_cache.h"
#include "protocol/service/service_command.h"
#include "serial/usb_frame.h"

namespace talvera::korvane {

class UsbSerialDevice;

/// A hand's hold on its serial port, which may be missing, and what the port has brought.
class SerialLink {
 public:
  explicit SerialLink(const Korvane& hand);
  ~SerialLink();

  /// Opens the port; frames go to `callback` on the receive thread from then on. False, after a
  /// line, if that failed.
  bool Open(const std::string& port, int baud,
            std::function<void(std::uint8_t, const std::uint8_t*, std::size_t)> callback);

  /// What service operations ask first.
  bool IsReady() const { return hand_.connected && device; }

  /// The port. Throws std::runtime_error ("no transport") if there is none.
  UsbSerialDevice& Device() const;

  /// True if some frame came in time. A failure of the port is told.
  bool Request(const char* operation, ServiceCommand command, const ServicePayload& payload,
               SerialFrameCrcType crc = SerialFrameCrcType::kCrc16Ccitt) const;
  /// The same to another id than the hand's.
  bool RequestTo(std::uint16_t device_id, const char* operation, ServiceCommand command,
                 const ServicePayload& payload, SerialFrameCrcType crc) const;

  /// Doesn't wait. False after a short write, a failure of the port, which is told, or without one.
  bool Write(const char* operation, ServiceCommand command, const ServicePayload& payload) const;

  /// The versions of the hand; all zero without an answer.
  FwVersion QueryVersion(bool no_crc) const;

  std::unique_ptr<UsbSerialDevice> device;
  mutable ReplyCache replies;

 private:
  const Korvane& hand_;
};

}  // namespace talvera::korvane
