#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>
#include <thread>

#include "link/observable_link.h"
#include "serial/port_claim.h"
#include "serial/serial_library.h"
#include "serial/usb_frame.h"
#include "util/clock.h"
#include "util/guarded.h"
#include "util/wake_event.h"

namespace talvera::korvane {

/// One serial port, USB or RS-485, for the life of a hand: sends frames with a least gap between
/// them, and cuts what arrives into frames for one callback.
///
/// Requests and replies are not matched: whoever waits learns only that some frame came.
///
/// Threads: any number of application threads, of which one at a time may wait for a reply or
/// reconnect, and one receive thread, on which the callback runs with no lock held. `isOpen` keeps
/// its answer after the device was unplugged; `running_` tells whether the receive thread lives.
///
/// A read takes what has arrived and then waits as long as the rest of 256 bytes would need on the
/// wire, so that a reply comes late on a slow line: by 23 ms at 115200 baud, by 260 ms at 9600. By
/// events it takes what has arrived and no more.
class UsbSerialDevice : public serial::Serial, public ObservableLink {
 public:
  using FrameCallback =
      std::function<void(std::uint8_t command, const std::uint8_t* data, std::size_t size)>;

  /// Opens `port` at once, 8N1 without flow control, for this object alone among those of all
  /// programs that use this class. Throws what the serial library throws. An empty name opens
  /// nothing.
  UsbSerialDevice(std::string_view port, unsigned int baud);
  UsbSerialDevice(const UsbSerialDevice&) = delete;
  UsbSerialDevice& operator=(const UsbSerialDevice&) = delete;
  ~UsbSerialDevice() override;

  /// Starts the receive thread if the port is open, and tells whether it is.
  void Init();

  /// Closes the port, waits 2 s for the device to come back under its name, and opens it again.
  /// False, with a line on the standard error stream, if it didn't: the port is then closed, and
  /// the link counts as lost until a later one succeeds.
  bool Reconnect();

  /// Ends the receive thread, and with it all calls of the callback. Called by the owner before it
  /// changes what the callback reads, and by the destructor.
  void StopReceiving();

  /// Not while the receive thread runs, which would miss what is taken here, nor in a Reconnect.
  std::size_t ReadRaw(std::uint8_t* data, std::size_t size);

  /// Sends bytes as they stand; takes at least 1 ms, and 6 ms more if the port takes nothing.
  /// Returns how many went out, fewer than `size` if it takes no more. Throws what the serial
  /// library throws.
  std::size_t WriteRaw(const std::uint8_t* data, std::size_t size);

  /// Sends a frame with a kCrc16Ccitt trailer. `data` may be null if `size` is 0. Returns what
  /// WriteRaw does, or 0 and sends nothing if the data don't fit into a frame.
  std::size_t SendFrame(std::uint16_t device_id, std::uint8_t command, const std::uint8_t* data,
                        std::size_t size);

  /// How a request ended. One that the port didn't take whole may still be answered.
  enum class Exchanged { kReplied, kNoReply, kNotSent };

  /// Sends bytes and waits for a frame, by events one with the same command and otherwise any, for
  /// up to the receive time-out. Throws what WriteRaw does.
  Exchanged Exchange(const std::uint8_t* data, std::size_t size);

  /// The same. True if a frame came.
  bool SendRequestWithReply(const std::uint8_t* data, std::size_t size) {
    return Exchange(data, size) == Exchanged::kReplied;
  }

  /// Held to 0..500 ms. The next request isn't delayed by the change.
  void SetMinRequestInterval(int ms);
  int GetMinRequestInterval() const { return min_request_interval_ms_; }

  /// Held to 10..1000 ms.
  void SetFrameRecvTimeout(int ms);
  int GetFrameRecvTimeout() const { return frame_recv_timeout_ms_; }

  /// Whether a frame begins in a way that this device accepts. The first one that does decides
  /// which device id is accepted from then on.
  bool CheckFrame(const UsbFrame* frame);

  /// "[time] SND: .." or "[time] RCV: .." on the standard output stream, if `print_frames_` is set.
  void PrintFrame(const std::uint8_t* data, std::size_t size, bool is_send) const;

  /// What of an incomplete frame has arrived, on the standard error stream.
  void DebugDumpRecvBuffer(std::size_t max_bytes);

  /// Waits until the least gap since the last write is over, and marks a new write.
  void EnforceRequestInterval() KORVANE_REQUIRES(write_mutex_);

  /// The body of the receive thread. What follows runs on it, and needs no port.
  void RecvThread();

  /// Takes a block of up to 256 received bytes.
  void TakeBlock(const std::uint8_t* block, std::size_t size);

  /// Hands each complete frame in the buffer to the callback.
  void ParseRecvBuffer();

  std::thread recv_thread_;
  std::atomic<bool> running_{true};
  std::atomic<bool> print_frames_{false};
  /// Written by the receive thread under a lock of its own, without which it reads it; others read
  /// it through DebugDumpRecvBuffer only.
  std::array<std::uint8_t, 1024> recv_buffer_{};
  std::atomic<std::uint64_t> recv_buffer_pos_{0};
  std::atomic<std::uint16_t> filter_device_id_{kAnyDeviceId};
  /// Set before Init. Must not throw: that ends the receive thread.
  FrameCallback frame_callback_;
  /// One write at a time, and none while the port is opened or closed.
  Mutex write_mutex_;
  Mutex reply_mutex_;
  std::condition_variable reply_cv_;
  bool reply_received_ KORVANE_GUARDED_BY(reply_mutex_) = false;
  /// Whether the next frame answers somebody, for the counts.
  bool reply_awaited_ KORVANE_GUARDED_BY(reply_mutex_) = false;
  /// By events the command that a reply has; otherwise any frame answers.
  std::optional<std::uint8_t> awaited_command_ KORVANE_GUARDED_BY(reply_mutex_);
  std::atomic<std::chrono::system_clock::time_point> last_request_time_{
      std::chrono::system_clock::now()};
  std::atomic<int> min_request_interval_ms_{0};
  std::atomic<int> frame_recv_timeout_ms_{50};
  /// errno of the last write that threw; the library keeps it to itself.
  std::atomic<int> write_error_{0};
  /// Asks the receive thread to forget what it has of an incomplete frame.
  std::atomic<bool> clear_recv_buffer_{false};
  /// The clock of the wait in Reconnect, and that of the pauses around each write.
  Clock* clock_ = &SystemClock();
  Clock* pause_clock_ = &SystemClock();

 private:
  using Block = std::array<std::uint8_t, 256>;

  void OpenPort();
  void ClosePort();
  void StartReceiving();
  std::size_t WriteOut(const std::uint8_t* data, std::size_t size) KORVANE_REQUIRES(write_mutex_);
  void AwaitReplies(std::optional<std::uint8_t> command) KORVANE_REQUIRES(reply_mutex_);
  void ReceiveOn();
  void ReceivePass();
  std::size_t ReadBlock(Block& block);
  std::size_t ReadArrived(Block& block);
  bool PortIsReady();
  void LogDeath(const char* what);

  std::size_t DeliverFrames(std::size_t available);
  std::size_t AcceptedSize(const std::uint8_t* bytes, std::size_t available);
  void Deliver(const std::uint8_t* frame);

  void StoreBlock(std::size_t at, const std::uint8_t* block, std::size_t size, std::size_t end);
  void KeepNewest(std::size_t count);

  Mutex recv_buffer_mutex_;
  /// Held while the port is open. Changes only while there is no receive thread.
  PortClaim claim_;
  /// Readable when the receive thread is to look around.
  WakeEvent wake_;
};

}  // namespace talvera::korvane
