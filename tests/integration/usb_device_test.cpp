#include "serial/usb_device.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "korvane_log.h"
#include "support/capture.h"
#include "support/process_resources.h"
#include "support/pseudo_terminal.h"
#include "support/temporary_file.h"
#include "support/virtual_clock.h"
#include "util/clock.h"

namespace talvera::korvane {
namespace {

using std::chrono::milliseconds;
using test::MeasureResources;
using test::PseudoTerminal;
using test::StreamCapture;
using testing::ContainsRegex;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;
using Frame = std::pair<std::uint8_t, Bytes>;

const Bytes kPing = {0xEE, 0xAA, 1, 0, 1, 9, 0xFD, 0xB3};
const Bytes kPosition = {0xEE, 0xAA, 1, 0, 4, 7, 3, 0x34, 0x12, 0x4D, 0xE1};
const Frame kPingFrame = {9, {}};
const Frame kPositionFrame = {7, {3, 0x34, 0x12}};

/// So fast that reads hardly wait.
constexpr unsigned kBaud = 921600;

bool Eventually(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

class UsbDevice : public testing::Test {
 protected:
  UsbDevice() {
    device_.frame_recv_timeout_ms_ = 60'000;
    device_.clock_ = &clock_;
    device_.frame_callback_ = [this](std::uint8_t command, const std::uint8_t* data,
                                     std::size_t size) {
      const std::lock_guard lock(mutex_);
      delivered_.emplace_back(command, Bytes(data, data + size));
    };
  }

  /// The next frame that the callback gets.
  Frame Next() {
    Frame frame;
    EXPECT_TRUE(Eventually([&] {
      const std::lock_guard lock(mutex_);
      if (delivered_.empty()) return false;
      frame = delivered_.front();
      delivered_.pop_front();
      return true;
    }));
    return frame;
  }

  /// Reconnects, with something that happens in its wait of 2 s.
  bool ReconnectAndMeanwhile(const std::function<void()>& action) {
    auto result = std::async(std::launch::async, [this] { return device_.Reconnect(); });
    clock_.SleepFor(milliseconds(1999));  // Time passes when both threads wait.
    action();
    clock_.SleepFor(milliseconds(1));
    return result.get();
  }

  /// A request that has gone out and now waits for its reply.
  std::future<bool> WaitingRequest() {
    MutexLock lock(device_.reply_mutex_);
    device_.reply_received_ = true;  // The request clears it as it begins to wait.
    lock.unlock();
    auto answer = Request();
    EXPECT_EQ(line_.Read(kPing.size()), kPing);
    EXPECT_TRUE(Eventually([this] {
      const std::lock_guard guard(device_.reply_mutex_);
      return !device_.reply_received_;
    }));
    return answer;
  }

  std::future<bool> Request() {
    return std::async(std::launch::async,
                      [this] { return device_.SendRequestWithReply(kPing.data(), kPing.size()); });
  }

  std::string Named(const char* text) const {
    return "[USB][serial port: " + line_.Path() + "] " + text + "\n";
  }

  std::mutex mutex_;
  std::deque<Frame> delivered_;
  test::VirtualClock clock_{2};
  StreamCapture out_{stdout};
  StreamCapture err_{stderr};
  PseudoTerminal line_;
  UsbSerialDevice device_{line_.Path(), kBaud};
};

// The port

TEST_F(UsbDevice, TellsItsPortAndCarriesFramesBothWays) {
  EXPECT_TRUE(device_.isOpen());
  EXPECT_EQ(device_.getBaudrate(), kBaud);
  EXPECT_EQ(device_.getBytesize(), serial::eightbits);
  device_.Init();
  device_.Init();  // changes nothing
  EXPECT_EQ(out_.Text(), Named("init [ok]") + Named("init [ok]"));
  EXPECT_EQ(device_.SendFrame(1, 9, nullptr, 0), 8U);
  EXPECT_EQ(line_.Read(8), kPing);
  EXPECT_EQ(device_.SendFrame(1, 7, Bytes(121).data(), 121), 0U) << "no frame holds that";
  EXPECT_EQ(device_.SendFrame(1, 7, kPositionFrame.second.data(), 3), 11U);
  EXPECT_EQ(line_.Read(11), kPosition);
  line_.Write(kPosition);
  EXPECT_EQ(Next(), kPositionFrame);
}

TEST(UsbDevicePort, ThatCantBeOpenedThrowsAndLeavesNothingBehind) {
  const test::TemporaryFile file({1});
  const PseudoTerminal line;
  const PseudoTerminal used;
  const UsbSerialDevice user(used.Path(), kBaud);
  const struct {
    std::string port;
    unsigned baud;
    const char* text;
  } refused[] = {{"/nonexistent/port", kBaud, "No such file"},
                 {file.Path(), kBaud, "Inappropriate ioctl"},
                 {"/dev/null", kBaud, "Inappropriate ioctl"},
                 {line.Path(), 12345, "Inappropriate ioctl"},
                 {used.Path(), kBaud, "in use by another hand object or program"}};
  const auto before = MeasureResources();
  for (int i = 0; i < 2000; ++i) {
    const auto& [port, baud, text] = refused[static_cast<std::size_t>(i) % std::size(refused)];
    try {
      const UsbSerialDevice device(port, baud);
      ADD_FAILURE() << port;
    } catch (const serial::IOException& error) {
      EXPECT_THAT(error.what(), HasSubstr(text));
    }
  }
  EXPECT_EQ(MeasureResources().descriptors, before.descriptors);
  UsbSerialDevice none("", kBaud);
  const auto written = test::CaptureStreams([&] { none.Init(); });
  EXPECT_EQ(written.out, "[USB][serial port: ] init [failed]\n");
  EXPECT_FALSE(none.recv_thread_.joinable());
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW(none.WriteRaw(kPing.data(), kPing.size()), serial::PortNotOpenedException);
  }
}

// A line may come without a carrier, which opening it must not wait for; and a program that this
// one starts must not keep the port.
TEST(UsbDevicePort, IsClaimedWithoutWaitingAndForThisProcessAlone) {
  const PseudoTerminal line;
  const PortClaim claim(line.Path(), kBaud);
  EXPECT_EQ(fcntl(claim.Descriptor(), F_GETFL) & (O_ACCMODE | O_NONBLOCK), O_RDWR | O_NONBLOCK);
  EXPECT_EQ(fcntl(claim.Descriptor(), F_GETFD), FD_CLOEXEC);
}

// The serial library would end the process with a descriptor of 1024 or more.
TEST(UsbDevicePort, IsRefusedWhereItsDescriptorWouldBeTooLarge) {
  constexpr int kTooLarge = 1024;
  rlimit limit{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, rlim_t{2} * kTooLarge);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  PseudoTerminal line;
  std::vector<int> files{dup(STDIN_FILENO)};
  while (files.back() >= 0 && files.back() < kTooLarge) files.push_back(dup(STDIN_FILENO));
  ASSERT_EQ(files.back(), kTooLarge);
  for (const bool fits : {false, false, true}) {
    try {
      UsbSerialDevice device(line.Path(), kBaud);
      EXPECT_TRUE(fits);
      line.Write(kPing);
      EXPECT_TRUE(Eventually([&] { return device.available() == kPing.size(); }));
    } catch (const serial::IOException& error) {
      EXPECT_FALSE(fits);
      EXPECT_THAT(error.what(), HasSubstr("a serial port needs a descriptor below 1024"));
    }
    close(files[files.size() - 2]);  // A port takes two.
    files.erase(files.end() - 2);
  }
  for (const int file : files) close(file);
}

TEST_F(UsbDevice, HoldsItsTimesToTheirLimits) {
  for (const int set : {-5, 0, 500, 600}) {
    device_.SetMinRequestInterval(set);
    EXPECT_EQ(device_.GetMinRequestInterval(), set <= 0 ? 0 : 500);
    const auto ready = device_.last_request_time_.load() + milliseconds(set <= 0 ? 0 : 500);
    EXPECT_LE(ready, std::chrono::system_clock::now()) << "the next request goes at once";
  }
  for (const int set : {5, 10, 1000, 5000}) {
    device_.SetFrameRecvTimeout(set);
    EXPECT_EQ(device_.frame_recv_timeout_ms_, set <= 10 ? 10 : 1000);
  }
  device_.SetMinRequestInterval(20);
  device_.WriteRaw(kPing.data(), kPing.size());
  const auto first = device_.last_request_time_.load();
  device_.WriteRaw(kPing.data(), kPing.size());
  EXPECT_GE(device_.last_request_time_.load() - first, milliseconds(20));
  EXPECT_EQ(line_.Read(16).size(), 16U);
}

// Requests

/// Does something in the second of the two pauses around each write, in place of the pauses.
struct AfterEachWrite : Clock {
  TimePoint Now() const override { return SystemClock().Now(); }
  void SleepFor(std::chrono::nanoseconds /*duration*/) override {
    if (++pauses_ % 2 == 0) action();
  }
  void WaitUntil(std::unique_lock<std::mutex>& lock, std::condition_variable& cv,
                 TimePoint deadline) override {
    SystemClock().WaitUntil(lock, cv, deadline);
  }
  void NotifyAll(std::condition_variable& cv) override { SystemClock().NotifyAll(cv); }

  std::function<void()> action;

 private:
  int pauses_ = 0;
};

/// A hand answers a position that it was sent, which nobody waits for; that must not be taken for
/// the answer to the next request. Settled: any frame is one, other than by events.
TEST_F(UsbDevice, AFrameWithAnotherCommandAnswersUnlessItIsByEvents) {
  device_.Init();
  device_.frame_recv_timeout_ms_ = 2000;
  for (const bool by_events : {true, false}) {
    device_.SetReceiving(by_events ? Receiving::BY_EVENTS : Receiving::AS_EVER);
    const auto unmatched = device_.counters_.unmatched_frames.load();
    auto answer = WaitingRequest();
    line_.Write(kPosition);
    EXPECT_EQ(Next(), kPositionFrame);
    if (by_events) {
      line_.Write(kPing);
      EXPECT_EQ(Next(), (Frame{9, {}}));
    }
    EXPECT_TRUE(answer.get());
    EXPECT_EQ(device_.counters_.unmatched_frames - unmatched, by_events ? 1U : 0U);
  }
}

// Settled: the flag is cleared after the write, and by events before it.
TEST_F(UsbDevice, AReplyThatIsThereBeforeTheWaitCountsByEventsAlone) {
  AfterEachWrite clock;
  device_.pause_clock_ = &clock;
  device_.Init();
  clock.action = [this] {
    MutexLock lock(device_.reply_mutex_);
    device_.reply_received_ = false;
    lock.unlock();
    line_.Write(kPosition);
    EXPECT_EQ(Next(), kPositionFrame);
    EXPECT_TRUE(Eventually([this] {
      const std::lock_guard guard(device_.reply_mutex_);
      return device_.reply_received_;
    }));
  };
  for (const bool by_events : {true, false}) {
    device_.SetReceiving(by_events ? Receiving::BY_EVENTS : Receiving::AS_EVER);
    if (!by_events) device_.frame_recv_timeout_ms_ = 10;
    EXPECT_EQ(device_.SendRequestWithReply(kPosition.data(), kPosition.size()), by_events);
  }
  clock.action = [] {};
  device_.SetReceiving(Receiving::BY_EVENTS);
  device_.reply_received_ = true;
  EXPECT_FALSE(device_.SendRequestWithReply(kPing.data(), kPing.size())) << "from before it";
}

TEST_F(UsbDevice, ShowsARequestBeforeItsReplyHoweverQuickThatIs) {
  device_.SetReceiving(Receiving::BY_EVENTS);
  device_.Init();
  std::atomic<bool> reply_shown{false};
  device_.tap_.Set([&](const FrameEvent& frame) {
    if (!frame.sent) return static_cast<void>(reply_shown = true);
    line_.Write(kPosition);
    EXPECT_TRUE(
        Eventually([&] { return reply_shown || device_.recv_buffer_pos_ == kPosition.size(); }));
    // The reply has come in. One that didn't wait for its turn has the time to be shown.
    const auto end = std::chrono::steady_clock::now() + milliseconds(20);
    while (!reply_shown && std::chrono::steady_clock::now() < end) std::this_thread::yield();
    EXPECT_FALSE(reply_shown);
  });
  EXPECT_TRUE(device_.SendRequestWithReply(kPosition.data(), kPosition.size()));
  EXPECT_TRUE(reply_shown);
}

TEST_F(UsbDevice, CountsAndShowsWhatGoesOverTheLine) {
  std::vector<std::tuple<bool, std::uint32_t, Bytes>> shown;
  device_.tap_.Set([&](const FrameEvent& frame) {
    const std::lock_guard lock(mutex_);
    shown.emplace_back(frame.sent, frame.id, Bytes(frame.data, frame.data + frame.size));
  });
  device_.Init();
  auto answer = WaitingRequest();
  line_.Write(kPosition);
  EXPECT_TRUE(answer.get());
  line_.Write(kPing);
  EXPECT_TRUE(Eventually([this] { return device_.counters_.unmatched_frames == 1U; }));
  device_.frame_recv_timeout_ms_ = 10;
  EXPECT_FALSE(Request().get());
  EXPECT_FALSE(device_.counters_.link_lost);
  line_.Unplug();
  EXPECT_TRUE(Eventually([this] { return device_.counters_.link_lost.load(); }));
  EXPECT_ANY_THROW(Request().get());
  const LinkCounters& counted = device_.counters_;
  EXPECT_EQ(counted.requests, 3U);
  EXPECT_EQ(counted.replies, 1U);
  EXPECT_EQ(counted.timeouts, 1U);
  EXPECT_EQ(counted.send_failures, 1U);
  EXPECT_EQ(counted.unmatched_frames, 1U);
  EXPECT_GT(counted.last_reply.load().count(), 0);
  const decltype(shown) expected{
      {true, 1, kPing}, {false, 1, kPosition}, {false, 1, kPing}, {true, 1, kPing}};
  EXPECT_EQ(shown, expected) << "what couldn't be sent isn't shown";
}

TEST_F(UsbDevice, TakesFramesInPiecesByEventsAndNoticesThatThePortIsGone) {
  device_.SetReceiving(Receiving::BY_EVENTS);
  device_.Init();
  for (int i = 0; i < 20; ++i) {
    for (const std::uint8_t byte : kPosition) line_.Write({byte});
    ASSERT_EQ(Next(), kPositionFrame);
  }
  line_.Write({kPosition.begin(), kPosition.begin() + 5});
  EXPECT_TRUE(Eventually([this] { return device_.recv_buffer_pos_ == 5U; }));
  device_.clear_recv_buffer_ = true;
  line_.Write(kPing);
  EXPECT_EQ(Next(), kPingFrame) << "only what had come before is forgotten";
  line_.Unplug();
  EXPECT_TRUE(Eventually([this] { return !device_.running_; }));
  EXPECT_TRUE(device_.counters_.link_lost);
  ASSERT_TRUE(ReconnectAndMeanwhile([this] { line_.Plug(); }));
  EXPECT_FALSE(device_.counters_.link_lost);
  line_.Write(kPosition);
  EXPECT_EQ(Next(), kPositionFrame);
}

// Reconnecting

TEST_F(UsbDevice, ComesBackEachTimeThatItIsPluggedInAgain) {
  device_.Init();
  const auto before = MeasureResources();
  for (int i = 0; i < test::kManyCycles; ++i) {
    line_.Unplug();
    ASSERT_TRUE(Eventually([this] { return !device_.running_; })) << i;
    ASSERT_TRUE(ReconnectAndMeanwhile([this] { line_.Plug(); })) << i;
    line_.Write(kPosition);
    ASSERT_EQ(Next(), kPositionFrame) << i;
  }
  EXPECT_THAT(out_.Text(), HasSubstr("[USB] Reconnect: waiting 2s for device re-enumeration...\n" +
                                     Named("reconnect [ok]")));
  EXPECT_EQ(MeasureResources().descriptors, before.descriptors);
  EXPECT_TRUE(Eventually([&] { return MeasureResources().threads == before.threads; }));
}

TEST_F(UsbDevice, AReconnectThatFailsLeavesThePortClosedUntilOneSucceeds) {
  device_.Init();
  line_.Write({kPosition.begin(), kPosition.begin() + 7});
  EXPECT_TRUE(Eventually([this] { return device_.recv_buffer_pos_ == 7U; }));
  const auto write = [this] { device_.WriteRaw(kPing.data(), kPing.size()); };
  line_.Unplug();
  EXPECT_FALSE(ReconnectAndMeanwhile(
      [&] { EXPECT_THROW(write(), serial::PortNotOpenedException) << "refused, not held up"; }));
  EXPECT_THAT(err_.Text(), ContainsRegex("\\[USB\\] Reconnect failed: IO Exception \\(2\\).+\n"));
  EXPECT_FALSE(device_.running_);
  EXPECT_FALSE(device_.isOpen());
  EXPECT_TRUE(device_.counters_.link_lost);
  EXPECT_THROW(write(), serial::PortNotOpenedException);
  EXPECT_TRUE(ReconnectAndMeanwhile([this] { line_.Plug(); }));
  EXPECT_FALSE(device_.counters_.link_lost);
  EXPECT_EQ(device_.recv_buffer_pos_, 0U);
  EXPECT_EQ(device_.filter_device_id_, kAnyDeviceId) << "nothing has decided yet";
  line_.Write(Bytes(kPosition.begin() + 7, kPosition.end()));
  line_.Write(kPing);
  EXPECT_EQ(Next(), kPingFrame) << "what was cut by the reconnect stays cut";
  EXPECT_EQ(device_.filter_device_id_, 1);
}

TEST_F(UsbDevice, KeepsItsPortForItselfButNotWhileItReconnects) {
  const auto open_again = [this] { return std::make_unique<UsbSerialDevice>(line_.Path(), kBaud); };
  std::unique_ptr<UsbSerialDevice> other;
  device_.Init();
  EXPECT_THROW(open_again(), serial::IOException);
  EXPECT_FALSE(ReconnectAndMeanwhile([&] { other = open_again(); }));
  EXPECT_TRUE(device_.counters_.link_lost);
  EXPECT_THAT(err_.Text(),
              ContainsRegex("Reconnect failed: .+ the port is in use by another hand"));
  other.reset();
  EXPECT_TRUE(ReconnectAndMeanwhile([] {}));
  EXPECT_THROW(open_again(), serial::IOException);
  line_.Write(kPosition);
  EXPECT_EQ(Next(), kPositionFrame) << "all bytes are still its own";
}

// Reading

// Settled: a silent line keeps what is to be cleared, until one block more has come.
TEST_F(UsbDevice, ClearsItsBufferAfterTheNextBlock) {
  device_.clear_recv_buffer_ = true;
  device_.Init();
  const auto cleared = [this] { return !device_.clear_recv_buffer_; };
  EXPECT_TRUE(Eventually(cleared)) << "before the first read";
  device_.clear_recv_buffer_ = true;
  std::uint8_t none = 0;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(device_.ReadRaw(&none, 1), 0U) << "silence";
  EXPECT_FALSE(cleared());
  line_.Write({kPosition.begin(), kPosition.begin() + 5});
  EXPECT_TRUE(Eventually(cleared));
  line_.Write(Bytes(kPosition.begin() + 5, kPosition.end()));
  line_.Write(kPing);
  EXPECT_EQ(Next(), kPingFrame) << "the frame before it has lost its head";
}

TEST_F(UsbDevice, WarnsOfAFullBlockAndReadsOn) {
  Bytes full(300);
  full.insert(full.end(), kPing.begin(), kPing.end());
  line_.Write(full);
  EXPECT_TRUE(Eventually([this] { return device_.available() == 308; }));
  device_.Init();
  EXPECT_EQ(Next(), kPingFrame);
  EXPECT_THAT(out_.Text(), HasSubstr("read bytes >= READ_BYTES_LIMIT(256), data may loss\n"));
}

TEST_F(UsbDevice, PrintsFramesAndTheBufferOnDemand) {
  device_.TakeBlock(kPing.data(), 3);
  device_.DebugDumpRecvBuffer(2);
  device_.DebugDumpRecvBuffer(64);
  EXPECT_EQ(err_.Text(),
            "[USB_OTA] recv_buffer_pos_=3, first 2 bytes (hex): ee aa \n"
            "[USB_OTA] recv_buffer_pos_=3, first 3 bytes (hex): ee aa 01 \n");
  device_.WriteRaw(kPing.data(), kPing.size());
  EXPECT_EQ(out_.Text(), "");
  device_.print_frames_ = true;
  const std::string time = "\\[[0-9]{4}(-[0-9]{2}){2} [0-9]{2}(:[0-9]{2}){2}\\.[0-9]{6}\\] ";
  device_.WriteRaw(kPing.data(), kPing.size());
  EXPECT_THAT(out_.Text(), ContainsRegex("^" + time + "SND: ee aa 01 00 01 09 fd b3 \n$"));
  LogLevel level = LogLevel::INFO;
  SetLogSink([&level](LogLevel of_line, std::string_view) { level = of_line; });
  device_.WriteRaw(kPing.data(), kPing.size());
  SetLogSink({});
  EXPECT_EQ(level, LogLevel::DETAIL) << "as over CAN";
  device_.Init();
  line_.Write(kPing);
  EXPECT_EQ(Next(), kPingFrame);
  EXPECT_THAT(out_.Text(), ContainsRegex("\n" + time + "RCV: ee "));
}

TEST_F(UsbDevice, TellsHowMuchAFullPortTookAndWritesOnWhenItHasRoom) {
  const Bytes block(4000, 0x5A);
  Bytes taken;
  while (const std::size_t count = device_.WriteRaw(block.data(), block.size())) {
    taken.insert(taken.end(), count, 0x5A);
  }
  EXPECT_EQ(line_.Read(taken.size()), taken);
  EXPECT_TRUE(Eventually([&] { return device_.WriteRaw(kPing.data(), kPing.size()) != 0; }));
  EXPECT_EQ(line_.Read(kPing.size()), kPing);
}

TEST_F(UsbDevice, KeepsFramesOfManyThreadsWhole) {
  constexpr std::size_t kEach = 30;
  device_.Init();
  MutexLock lock(device_.write_mutex_);
  std::vector<std::future<void>> writers;
  for (const Bytes* frame : {&kPing, &kPosition, &kPing}) {
    writers.push_back(std::async(std::launch::async, [this, frame] {
      for (std::size_t i = 0; i < kEach; ++i) {
        // On a busy machine the port may take nothing, even three times.
        while (device_.WriteRaw(frame->data(), frame->size()) == 0) {
        }
      }
    }));
  }
  EXPECT_EQ(writers[0].wait_for(milliseconds(100)), std::future_status::timeout);
  lock.unlock();
  for (int i = 0; i < 20; ++i) {
    device_.print_frames_ = i % 2 == 0;
    device_.SetMinRequestInterval(i % 2);
    device_.SetFrameRecvTimeout(i);
    line_.Write(kPosition);
    device_.DebugDumpRecvBuffer(64);
    EXPECT_EQ(Next(), kPositionFrame);
  }
  for (std::size_t i = 0; i < 3 * kEach; ++i) {
    Bytes frame = line_.Read(6);
    ASSERT_EQ(frame.size(), 6U);
    const Bytes& expected = frame.back() == 9 ? kPing : kPosition;
    for (const auto byte : line_.Read(expected.size() - 6)) frame.push_back(byte);
    ASSERT_EQ(frame, expected);
  }
}

}  // namespace
}  // namespace talvera::korvane
