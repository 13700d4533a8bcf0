#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "can/can_bus_device.h"
#include "can/reading_turn.h"

namespace talvera::korvane {

/// CAN FD through a Linux SocketCAN raw socket. One object owns one socket; two hands on one
/// interface open two.
///
/// By events a caller that waits for its reply reads the socket itself, until a frame comes that
/// answers nothing: the receive thread gets that one and reads on for the rest of the request.
class CanBusDeviceSocketCan : public CanBusDeviceBase {
 public:
  /// Opens `interface_name`, of which at most 15 characters count. A failure is logged on
  /// the standard error stream and leaves IsInit() false.
  explicit CanBusDeviceSocketCan(const std::string& interface_name);
  ~CanBusDeviceSocketCan() override;

  bool IsInit() override { return socket_fd_ >= 0; }
  int OpenDevice() override;
  int CloseDevice() override;
  void RecvFrame() override;
  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override;

  std::string interface_name_;
  int socket_fd_ = -1;

 private:
  /// The other one delegates to it, so that the destructor clears up what it throws in the middle
  /// of.
  CanBusDeviceSocketCan(Closed, const std::string& interface_name);

  /// Makes a socket that doesn't block. False if the system has none to give.
  bool MakeSocket();
  int FindInterface() const;
  /// What bind returned.
  int BindTo(int interface_index) const;
  /// Logs why the socket can't be had, and keeps it for those who ask later. Returns -1.
  int OpenFailed(const std::string& line);
  std::optional<CanfdFrame> ReadFrame();
  bool TakeTurn() override;
  void GiveTurnBack() override { turn_.GiveBackByCaller(); }
  bool ReadInTurn(int most_ms) override;
  void TakeWhatIsThere();
  void LeaveToReceiver();
  void NoteError(int system_error);
  /// Closes a socket that can't be used. Returns -1.
  int AbandonSocket();

  /// The socket is ready, and ours. The descriptor keeps its value when it is closed, and the
  /// number may then belong to another file of the process.
  std::atomic<bool> open_{false};

  ReadingTurn turn_;
  /// Frames for the receive thread that a caller has read. For who has the turn.
  std::vector<CanfdFrame> handed_over_;
};

}  // namespace talvera::korvane
