#include "serial/usb_device.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <new>
#include <string>
#include <utility>

#include "util/bytes.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

constexpr int kMaxRequestIntervalMs = 500;
constexpr auto kPause = std::chrono::microseconds(500);
constexpr int kWriteAttempts = 3;
constexpr auto kReenumeration = std::chrono::seconds(2);
constexpr std::size_t kBufferLimit = 1023;
constexpr std::size_t kKeptWithoutFrame = 128;

serial::Timeout PortTimeout() { return serial::Timeout(serial::Timeout::max(), 2, 0, 2, 0); }

}  // namespace

UsbSerialDevice::UsbSerialDevice(std::string_view port, unsigned int baud)
    : Serial("", baud, PortTimeout(), serial::eightbits, serial::parity_none, serial::stopbits_one,
             serial::flowcontrol_none) {
  setPort(std::string(port));
  wake_receiver_ = [this] { wake_.Signal(); };
  if (port.empty()) return;
  OpenPort();
  wake_.Open();
}

UsbSerialDevice::~UsbSerialDevice() { StopReceiving(); }

// The port

void UsbSerialDevice::Init() {
  const bool open = isOpen();
  LogInfo(Compose("[USB][serial port: ", getPort(), "] init ", open ? "[ok]" : "[failed]"));
  if (open && !recv_thread_.joinable()) StartReceiving();
}

bool UsbSerialDevice::Reconnect() {
  try {
    StopReceiving();
    ClosePort();
    LogInfo(Compose("[USB] Reconnect: waiting ", kReenumeration.count(),
                    "s for device re-enumeration..."));
    clock_->SleepFor(kReenumeration);
    OpenPort();
    KeepNewest(0);
    counters_.link_lost = false;
    StartReceiving();
    LogInfo(Compose("[USB][serial port: ", getPort(), "] reconnect [ok]"));
    return true;
  } catch (const std::exception& error) {
    running_ = false;
    counters_.link_lost = true;
    ClosePort();  // which is open if it was the thread that couldn't start
    LogError(Compose("[USB] Reconnect failed: ", error.what()));
    return false;
  }
}

// The library opens and closes without a look at who writes. A write between the two is refused,
// not held up until the device is back.
void UsbSerialDevice::OpenPort() {
  const MutexLock lock(write_mutex_);
  PortClaim claim(getPort(), getBaudrate());
  errno = 0;
  try {
    open();
  } catch (serial::IOException& error) {
    const int system_error = errno;
    claim.CloseLost();
    // The library keeps some reasons to itself.
    if (error.getErrorNumber() != 0 || system_error == 0) throw;
    throw serial::IOException(__FILE__, __LINE__, system_error);
  }
  claim_ = std::move(claim);
}

void UsbSerialDevice::ClosePort() {
  const MutexLock lock(write_mutex_);
  if (isOpen()) close();
  claim_ = PortClaim();
}

void UsbSerialDevice::StartReceiving() {
  running_ = true;
  recv_thread_ = std::thread(&UsbSerialDevice::RecvThread, this);
}

void UsbSerialDevice::StopReceiving() {
  running_ = false;
  WakeReceiver();
  if (recv_thread_.joinable()) recv_thread_.join();
}

// Sending

std::size_t UsbSerialDevice::ReadRaw(std::uint8_t* data, std::size_t size) {
  return read(data, size);
}

std::size_t UsbSerialDevice::WriteRaw(const std::uint8_t* data, std::size_t size) {
  const MutexLock lock(write_mutex_);
  EnforceRequestInterval();
  PrintFrame(data, size, /*is_send=*/true);
  pause_clock_->SleepFor(kPause);
  const std::size_t written = WriteOut(data, size);
  pause_clock_->SleepFor(kPause);
  return written;
}

std::size_t UsbSerialDevice::WriteOut(const std::uint8_t* data, std::size_t size) {
  const bool is_frame = size > kUsbFrameLength;
  std::size_t written = 0;
  const auto send = [&] {
    // The library looks at its 2 ms before it looks at the port, so that on a busy machine it may
    // take nothing, and say nothing, of what the port had room for. One lost packet ends an update.
    for (int left = kWriteAttempts; written == 0 && left > 0; --left) written = write(data, size);
    return is_frame && written == size;
  };
  write_error_ = 0;
  errno = 0;
  try {
    tap_.SendAndShow(send, is_frame ? LoadU16(data + kUsbFrameDeviceId) : 0U, data, size);
  } catch (...) {
    write_error_ = errno;
    ++counters_.send_failures;
    throw;
  }
  if (written < size) ++counters_.send_failures;
  return written;
}

std::size_t UsbSerialDevice::SendFrame(std::uint16_t device_id, std::uint8_t command,
                                       const std::uint8_t* data, std::size_t size) {
  UsbFrameBuilder frame(device_id, command);
  if (data != nullptr) frame.AddData(data, size);
  const std::size_t frame_size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
  return frame_size == 0 ? 0 : WriteRaw(frame.Data(), frame_size);
}

UsbSerialDevice::Exchanged UsbSerialDevice::Exchange(const std::uint8_t* data, std::size_t size) {
  ++counters_.requests;
  const bool by_events = by_events_;
  if (by_events) {
    const MutexLock lock(reply_mutex_);
    AwaitReplies(size > kUsbFrameCommand ? std::optional(data[kUsbFrameCommand]) : std::nullopt);
  }
  const bool sent = WriteRaw(data, size) == size;
  MutexLock lock(reply_mutex_);
  // Unless the application asked for events, cleared only after the write and its pause: a reply
  // that is already there is lost, and the request times out. Applications rely on it that a frame
  // from before the request, such as a report, doesn't answer it. One that comes during the wait
  // does, whatever it is about.
  if (!by_events) AwaitReplies({});
  reply_cv_.wait_for(lock, milliseconds(frame_recv_timeout_ms_),
                     [this]() KORVANE_REQUIRES(reply_mutex_) { return reply_received_; });
  reply_awaited_ = false;
  awaited_command_.reset();
  if (reply_received_) counters_.CountReply();
  if (reply_received_) return Exchanged::kReplied;
  if (!sent) return Exchanged::kNotSent;
  ++counters_.timeouts;
  return Exchanged::kNoReply;
}

/// The next frame answers, or the next with that command.
void UsbSerialDevice::AwaitReplies(std::optional<std::uint8_t> command) {
  awaited_command_ = command;
  reply_received_ = false;
  reply_awaited_ = true;
}

void UsbSerialDevice::EnforceRequestInterval() {
  const milliseconds interval(min_request_interval_ms_);
  auto now = system_clock::now();
  const auto elapsed = std::chrono::duration_cast<milliseconds>(now - last_request_time_.load());
  if (interval > milliseconds(0) && elapsed < interval) {
    // A wall clock that was set back makes `elapsed` negative; the gap is still one interval.
    std::this_thread::sleep_for(std::min(interval - elapsed, interval));
    now = system_clock::now();
  }
  last_request_time_ = now;
}

void UsbSerialDevice::SetMinRequestInterval(int ms) {
  const int interval = std::clamp(ms, 0, kMaxRequestIntervalMs);
  min_request_interval_ms_ = interval;
  last_request_time_ = system_clock::now() - milliseconds(interval);
}

void UsbSerialDevice::SetFrameRecvTimeout(int ms) {
  frame_recv_timeout_ms_ = std::clamp(ms, kMinFrameRecvTimeoutMs, kMaxFrameRecvTimeoutMs);
}

// Receiving

void UsbSerialDevice::RecvThread() {
  try {
    KeepNewest(0);
    while (running_) ReceiveOn();
  } catch (const std::exception& error) {
    LogDeath(error.what());
  } catch (...) {
    LogDeath("unknown");
  }
}

void UsbSerialDevice::LogDeath(const char* what) {
  LogError(Compose("[USB] RecvThread [exception:", what, "][ort_open:", isOpen() ? 1 : 0,
                   "][recv_buffer_pos_:", recv_buffer_pos_, ']'));
  counters_.link_lost = true;
  running_ = false;
}

/// A frame that there was no memory for is found again with the next block.
void UsbSerialDevice::ReceiveOn() {
  try {
    ReceivePass();
  } catch (const std::bad_alloc&) {
    std::this_thread::sleep_for(kPause);
  }
}

void UsbSerialDevice::ReceivePass() {
  // Not looked at while the line is silent: the buffer then goes only after one block more, which
  // may still complete a frame in it. Update runs are built around that.
  if (clear_recv_buffer_.exchange(false)) KeepNewest(0);
  Block block;
  std::size_t count = 0;
  do {
    count = ReadBlock(block);
  } while (count == 0 && running_);
  if (count == 0) return;
  PrintFrame(block.data(), count, /*is_send=*/false);
  if (count >= block.size()) LogInfo("read bytes >= READ_BYTES_LIMIT(256), data may loss");
  TakeBlock(block.data(), count);
}

std::size_t UsbSerialDevice::ReadBlock(Block& block) {
  if (by_events_) return PortIsReady() ? ReadArrived(block) : 0;
  const std::size_t count = read(block.data(), block.size());
  std::this_thread::sleep_for(kPause);
  return count;
}

/// Sleeps until the port has bytes or an error, the thread is woken, or a while has passed.
bool UsbSerialDevice::PortIsReady() {
  constexpr int kMostMs = 50;
  pollfd watched[] = {{claim_.Descriptor(), POLLIN, 0}, {wake_.Descriptor(), POLLIN, 0}};
  poll(watched, std::size(watched), kMostMs);
  if (watched[1].revents != 0) wake_.Clear();
  return watched[0].revents != 0;
}

/// No more than has arrived, as the library waits for the rest of what it is asked for. Of a port
/// that is ready and has nothing it is asked for one byte, which has it throw if the port is gone.
std::size_t UsbSerialDevice::ReadArrived(Block& block) {
  const std::size_t count =
      read(block.data(), std::clamp<std::size_t>(available(), 1, block.size()));
  // Frames come in pieces here. What came before the buffer was to be forgotten is forgotten now,
  // as the next piece may be the middle of a reply.
  if (count > 0 && clear_recv_buffer_.exchange(false)) KeepNewest(0);
  return count;
}

void UsbSerialDevice::TakeBlock(const std::uint8_t* block, std::size_t size) {
  const std::size_t end = recv_buffer_pos_ + size;
  if (end > kBufferLimit) {
    // Starts again from nothing: the buffer is lost, and so is the block, since what of it is
    // copied doesn't count. Applications rely on it that nothing from before is found afterwards.
    LogInfo("recv_buffer_ full !!!, data may loss");
    StoreBlock(0, block, kBufferLimit - recv_buffer_pos_, 0);
    return;
  }
  StoreBlock(recv_buffer_pos_, block, size, end);
  if (end >= kMinUsbFrameSize) ParseRecvBuffer();
}

void UsbSerialDevice::ParseRecvBuffer() {
  const std::size_t available = recv_buffer_pos_;
  const std::size_t consumed = DeliverFrames(available);
  // As many bytes go from the front as the frames had, also when junk stood there, which stays in
  // its part: a frame behind its own length of junk or more is found and delivered again with the
  // next block. Applications read caches and rely on getting every frame at least once.
  KeepNewest(consumed > 0 ? available - consumed : std::min(available, kKeptWithoutFrame));
}

/// Returns how many bytes the delivered frames had.
std::size_t UsbSerialDevice::DeliverFrames(std::size_t available) {
  std::size_t consumed = 0;
  for (std::size_t at = 0; at + kMinUsbFrameSize <= available;) {
    const std::size_t size = AcceptedSize(&recv_buffer_[at], available - at);
    if (size > 0) Deliver(&recv_buffer_[at]);
    consumed += size;
    at += std::max<std::size_t>(size, 1);
  }
  return consumed;
}

/// 0 for what is no frame, or isn't one yet.
std::size_t UsbSerialDevice::AcceptedSize(const std::uint8_t* bytes, std::size_t available) {
  const UsbFrame head = LoadUsbFrameHead(bytes);
  if (!CheckFrame(&head)) return 0;
  const std::size_t size = head.length + kUsbFrameOverhead;
  if (size > available) return 0;
  if (TrailerPasses(bytes)) return size;
  LogError(Compose("[USB] drop frame: CRC mismatch recv=0x", std::hex,
                   LoadU16(bytes + size - kUsbFrameTrailerSize), " child_id=0x",
                   bytes[kUsbFrameData]));
  return 0;
}

bool UsbSerialDevice::CheckFrame(const UsbFrame* frame) {
  const std::uint16_t filter = filter_device_id_;
  if (frame->header != kUsbFrameHeader) return false;
  if (filter != kAnyDeviceId && frame->device_id != filter) return false;
  if (frame->length > kMaxReceivedLength) return false;
  // Learned before the rest of the frame is known, so that a damaged id shuts the hand out for the
  // life of this object. Applications rely on the first head that they see deciding.
  if (filter == kAnyDeviceId) filter_device_id_ = frame->device_id;
  return true;
}

void UsbSerialDevice::Deliver(const std::uint8_t* frame) {
  const std::size_t length = frame[kUsbFrameLength];
  tap_.ShowInTurn(LoadU16(frame + kUsbFrameDeviceId), frame, length + kUsbFrameOverhead);
  if (!frame_callback_ || length == 0) return;
  frame_callback_(frame[kUsbFrameCommand], frame + kUsbFrameData, length - 1);
  {
    const MutexLock lock(reply_mutex_);
    const bool answers =
        awaited_command_.value_or(frame[kUsbFrameCommand]) == frame[kUsbFrameCommand];
    if (answers) reply_received_ = true;
    if (!answers || !std::exchange(reply_awaited_, false)) ++counters_.unmatched_frames;
  }
  reply_cv_.notify_all();
}

/// Copies a block to `at`; `end` bytes of the buffer then count.
void UsbSerialDevice::StoreBlock(std::size_t at, const std::uint8_t* block, std::size_t size,
                                 std::size_t end) {
  const MutexLock lock(recv_buffer_mutex_);
  std::copy_n(block, size, &recv_buffer_[at]);
  recv_buffer_pos_ = end;
}

/// Moves the last `count` bytes to the front and zeroes what is behind them.
void UsbSerialDevice::KeepNewest(std::size_t count) {
  const MutexLock lock(recv_buffer_mutex_);
  std::memmove(recv_buffer_.data(), recv_buffer_.data() + recv_buffer_pos_ - count, count);
  std::memset(recv_buffer_.data() + count, 0, recv_buffer_.size() - count);
  recv_buffer_pos_ = count;
}

// Showing what goes over the line

void UsbSerialDevice::PrintFrame(const std::uint8_t* data, std::size_t size, bool is_send) const {
  if (!print_frames_) return;
  LogDetail(Compose(FormatTimestamp(system_clock::now()),
                    is_send ? " SND: " : " RCV: ", HexBytes(data, size)));
}

void UsbSerialDevice::DebugDumpRecvBuffer(std::size_t max_bytes) {
  const MutexLock lock(recv_buffer_mutex_);
  const std::size_t shown = std::min<std::size_t>(recv_buffer_pos_, max_bytes);
  LogError(Compose("[USB_OTA] recv_buffer_pos_=", recv_buffer_pos_, ", first ", shown,
                   " bytes (hex): ", HexBytes(recv_buffer_.data(), shown)));
}

}  // namespace talvera::korvane
