#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "korvane.h"
#include "link/diagnostics.h"
#include "private_korvane.h"
#include "protocol/serial/reply_cache.h"
#include "protocol/service/service_command.h"
#include "serial/usb_frame.h"

namespace talvera::korvane {

class UsbSerialDevice;

/// The serial port of a hand, if it could be opened, and the replies that have arrived on it. All
/// requests of the hand go through this class, which also records how they fail.
class SerialLink {
 public:
  /// Called on the receive thread with the command and the data of each frame.
  using FrameCallback = std::function<void(std::uint8_t, const std::uint8_t*, std::size_t)>;

  explicit SerialLink(const Korvane& hand);
  ~SerialLink();

  /// Opens the port and starts to receive. If that fails, logs why and returns false.
  bool Open(const std::string& port, int baud, FrameCallback callback);

  /// Ends the receive thread, then gives the port up.
  void Close();

  /// Whether service operations are carried out at all.
  bool IsReady() const { return hand_.connected && device; }
  /// The same, and records NO_LINK if they aren't. Writes no line.
  bool CheckReady() const;

  /// The port. Throws LinkError ("no transport") if there is none.
  UsbSerialDevice& Device() const;
  /// The port, for its settings; null if there is none, which is recorded in silence.
  UsbSerialDevice* DeviceOrFailure() const;

  /// One operation on the hand, for as long as what this returns lives. Every operation has one, so
  /// that its failure is recorded under its name.
  OperationScope Operation(const char* name) const { return {diagnostics, name}; }

  /// Records the failure of the operation that a line tells which the caller logs.
  void Record(FailureKind kind, const std::string& line) const {
    RecordFailure(diagnostics, kind, line);
  }
  /// Logs the line of an operation that is refused before anything is sent, and records it.
  void LogRefused(FailureKind kind, const std::string& line) const;
  /// Logs the line of a request that failed.
  void LogFailed(const std::string& line) const;
  /// The same on the standard output stream, where lines about reads have always gone.
  void LogReadFailed(const std::string& line) const;

  /// Records an exception of the port that reaches the application.
  void RecordThrown(const std::exception& error) const;

  /// Calls `write` as an operation with that name. A `write` that returns false (the port took only
  /// a part) or throws is recorded as the operation's failure; an exception is passed on.
  void WriteOrThrow(const char* operation, const std::function<bool()>& write) const;

  /// Sends a command and waits. True if some frame came in time. A failure of the port is logged.
  bool Request(const char* operation, ServiceCommand command, const ServicePayload& payload,
               SerialFrameCrcType crc = SerialFrameCrcType::kCrc16Ccitt) const;
  /// The same, to another id than the hand's.
  bool RequestTo(std::uint16_t device_id, const char* operation, ServiceCommand command,
                 const ServicePayload& payload, SerialFrameCrcType crc) const;

  /// Sends a command and doesn't wait. False if the port took less than all of it, failed, which is
  /// logged, or isn't there.
  bool Write(const char* operation, ServiceCommand command, const ServicePayload& payload) const;

  /// Sends a command and waits. Nothing if no frame came in time, or no reply to such a command has
  /// come that wasn't read before.
  std::optional<ReplyCache::Bytes> Read(const char* operation, ServiceCommand command,
                                        const ServicePayload& payload = {}) const;
  /// The same, but a reply that came earlier counts also when no frame comes now.
  std::optional<ReplyCache::Bytes> ReadOrTakeEarlier(const char* operation,
                                                     ServiceCommand command) const;

  /// Asks for the versions of the hand; all zero if it hasn't told any.
  FwVersion QueryVersion(bool no_crc) const;

  /// The last reply to such a command that nobody has read. If there is none, although a request
  /// was answered, that is the operation's failure.
  std::optional<ReplyCache::Bytes> TakeReply(ReplySlot slot, bool answered = true) const;

  std::unique_ptr<UsbSerialDevice> device;
  mutable ReplyCache replies;
  HandDiagnostics diagnostics;

 private:
  bool OpenFailed(const std::string& port, const char* why, int system_error);
  LinkError NoPort(const std::string& text) const;
  /// What an exception of the port means; nothing for one that comes from elsewhere.
  std::optional<LinkError> Explain(const std::exception& error) const;
  void RecordException(const char* operation, const std::exception& error) const;

  const Korvane& hand_;
  /// The line that says why the port couldn't be opened, and errno where there is one.
  std::string open_failure_ = "the port isn't open";
  int open_error_ = 0;
};

}  // namespace talvera::korvane
