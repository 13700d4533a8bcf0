// A caller that waits for its reply on SocketCAN, which by events reads the socket itself: whoever
// reads, the same happens in the same order, and callbacks run on the receive thread. On a socket
// pair in place of the kernel's bus.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/can.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <future>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "can/can_bus_device_socket_can.h"
#include "korvane_sim/simulated_hand.h"
#include "protocol/can/korvane_brisa_can_impl.h"
#include "support/allocation_hook.h"
#include "support/lent_sockets.h"
#include "support/process_resources.h"
#include "support/sim_frames.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono;
using test::AllocationHook;

constexpr auto kLongest = seconds(60);
constexpr std::uint8_t kId = 1;

/// The other end of the bus: what follows each frame that comes is up to a script.
class Bus {
 public:
  using Script = std::function<std::vector<canfd_frame>(const canfd_frame&)>;

  explicit Bus(Script script) : script_(std::move(script)) {
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends_), 0);
    lent_.emplace(std::vector<int>{ends_[0]});
    server_ = std::thread([this] { Serve(); });
  }
  Bus(const Bus&) = delete;
  Bus& operator=(const Bus&) = delete;
  /// After the devices on it.
  ~Bus() {
    is_over_ = true;
    shutdown(ends_[0], SHUT_RDWR);
    server_.join();
    for (const int fd : ends_) close(fd);
  }

  /// At the end there may be requests whose caller took the reply to another one.
  void Say(const canfd_frame& frame) const {
    const ssize_t written = send(ends_[1], &frame, sizeof frame, MSG_NOSIGNAL);
    EXPECT_TRUE(written == static_cast<ssize_t>(sizeof frame) || is_over_);
  }

 private:
  void Serve() {
    canfd_frame frame{};
    while (read(ends_[1], &frame, sizeof frame) > 0) {
      for (const canfd_frame& next : script_(frame)) Say(next);
    }
  }

  const Script script_;
  int ends_[2] = {-1, -1};
  std::optional<test::LentSockets> lent_;
  std::atomic<bool> is_over_{false};
  std::thread server_;
};

/// Frames are told apart by letters, their identifiers: a capital one answers a small one. Of a
/// reply in several frames, those with the digits 0 to 9 follow it.
canfd_frame Letter(char letter) {
  canfd_frame frame{};
  frame.can_id = static_cast<canid_t>(letter);
  frame.len = 2;
  return frame;
}

CanfdFrame Request(char letter) {
  CanfdFrame frame;
  frame.can_id = static_cast<std::uint32_t>(letter);
  return frame;
}

constexpr std::uint32_t ReplyTo(std::uint32_t id) { return id & ~0x20U; }

/// What happens, in its order: ">a" is sent, "<A" received, "(1" and ")" are the beginning and the
/// end of a callback, "=A" is what a caller got, "=-" that it got nothing in time.
class WaitingCaller : public testing::TestWithParam<Receiving> {
 protected:
  WaitingCaller() {
    device_.SetReceiving(GetParam());
    device_.frame_recv_timeout_ms_ = 60'000;
    device_.tap_.Set([this](const FrameEvent& event) {
      if (event.id == 'A') reply_shown_by_ = std::this_thread::get_id();
      Add({event.sent ? '>' : '<', static_cast<char>(event.id)});
    });
    device_.BindCallbacks([this](const CanfdFrame& frame) { Callback(frame); }, &ReplyTo,
                          [](auto request, auto id) { return id == ReplyTo(request); });
  }

  void Callback(const CanfdFrame& frame) {
    Add({'(', static_cast<char>(frame.can_id)});
    if (during_callback) during_callback(static_cast<char>(frame.can_id));
    const std::lock_guard lock(mutex_);
    callback_threads_.insert(std::this_thread::get_id());
    log_ += ")";
    changed_.notify_all();
  }

  void Add(const std::string& event) {
    const std::lock_guard lock(mutex_);
    log_ += event;
    changed_.notify_all();
  }

  void Ask(char letter) {
    std::string got = "=-";
    try {
      got[1] = static_cast<char>(device_.SendRequestSynchInternal(Request(letter)).can_id);
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), testing::HasSubstr("request timeout"));
    }
    Add(got);
  }

  bool Await(const std::string& log) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kLongest, [&] { return log_ == log; });
  }

  /// What has happened since, once that is as long as expected.
  std::string TakeLog(const std::string& expected) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kLongest, [&] { return log_.size() >= expected.size(); });
    return std::exchange(log_, "");
  }

  /// The receive thread has read what there was, so that the next caller gets the turn.
  void AwaitSleepOfReceiver() {
    std::promise<pid_t> id;
    during_callback = [&id](char) { id.set_value(gettid()); };
    bus_.Say(Letter('z'));
    const pid_t receiver = id.get_future().get();
    EXPECT_EQ(TakeLog("<z(z)"), "<z(z)");
    during_callback = nullptr;
    while (!test::IsAsleep(receiver)) std::this_thread::yield();
  }

  /// The frames that follow a request, by its letter.
  std::map<char, std::string> answers_;
  std::function<void(char)> during_callback;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::string log_;
  std::set<std::thread::id> callback_threads_;
  std::atomic<std::thread::id> reply_shown_by_{};

  Bus bus_{[this](const canfd_frame& request) {
    std::vector<canfd_frame> frames;
    for (const char letter : answers_[static_cast<char>(request.can_id)]) {
      if (std::isdigit(letter) && !frames.empty()) {
        frames.push_back(Letter(static_cast<char>(ReplyTo(request.can_id))));
        frames.back().data[1] = static_cast<std::uint8_t>(letter - '0');
      } else {
        frames.push_back(Letter(letter));
        frames.back().data[1] = request.data[0];
      }
      frames.back().data[0] = 3;
    }
    return frames;
  }};
  CanBusDeviceSocketCan device_{"pair"};
};
INSTANTIATE_TEST_SUITE_P(, WaitingCaller, testing::Values(Receiving::AS_EVER, Receiving::BY_EVENTS),
                         [](const auto& tested) {
                           return tested.param == Receiving::AS_EVER ? "AsEver" : "ByEvents";
                         });

TEST_P(WaitingCaller, SeesTheSameInTheSameOrderWhoeverReads) {
  answers_ = {{'a', "A"}, {'b', "xyB"}, {'c', ""}, {'d', "CxD"}, {'m', "M1x2"}};
  during_callback = [this](char letter) {  // as an update does
    if (letter == 'y') device_.SendRequestWithoutReply(Request('u'));
  };
  const auto expect = [this](char request, const std::string& log) {
    Ask(request);
    EXPECT_EQ(TakeLog(log), log);
  };
  for (int i = 0; i < 50; ++i) {
    expect('a', ">a<A=A");
    expect('b', ">b<x(x)<y(y>u)<B=B");
  }
  device_.frame_recv_timeout_ms_ = 10;
  const auto start = steady_clock::now();
  expect('c', ">c=-");
  EXPECT_GE(steady_clock::now() - start, 10ms);
  device_.frame_recv_timeout_ms_ = 60'000;
  expect('d', ">d<C(C)<x(x)<D=D");  // the reply that came too late for its request
  EXPECT_EQ(device_.SendRequestSynchMultiFrame(Request('m'), 3).size(), 3U);
  EXPECT_EQ(TakeLog(">m<M<M<x(x)<M"), ">m<M<M<x(x)<M");
  bus_.Say(Letter('z'));  // nobody waits
  EXPECT_EQ(TakeLog("<z(z)"), "<z(z)");
  EXPECT_THAT(callback_threads_, testing::ElementsAre(device_.recv_thread_->get_id()));
  EXPECT_EQ(device_.counters_.unmatched_frames, 104U);
}

TEST_P(WaitingCaller, LeavesTheReceiveThreadAwakeForWhatFollowsItsReply) {
  answers_ = {{'a', "Ax"}};
  for (int i = 0; i < 200; ++i) {
    device_.SendRequestSynchInternal(Request('a'));
    ASSERT_EQ(TakeLog(">a<A<x(x)"), ">a<A<x(x)") << i;
  }
}

TEST_P(WaitingCaller, TakesNoSecondReplyThatIsThereAlready) {
  if (GetParam() == Receiving::AS_EVER) GTEST_SKIP() << "left to the speed of the receive thread";
  answers_ = {{'a', "AA"}};
  // Not all: the receive thread may have a second reply in hand when a request goes out, on a busy
  // machine often. With each second reply taken for the next one, it is never more than a few.
  int own = 0;
  for (int round = 0; round < 50 && own <= 100; ++round) {
    own = 0;
    for (std::uint8_t i = 1; i <= 200; ++i) {
      CanfdFrame request = Request('a');
      request.len = 1;
      request.data[0] = i;
      if (device_.SendRequestSynchInternal(request).data[1] == i) ++own;
    }
  }
  EXPECT_GT(own, 100);
}

// Settled: what comes behind a frame waits until the callback has returned.
TEST_P(WaitingCaller, IsHeldUpByACallbackAsItsReplyComesAfterIt) {
  answers_ = {{'a', "xA"}, {'b', "B"}};
  std::map<char, std::promise<void>> ends;
  for (const char letter : {'x', 'y'}) ends[letter];
  during_callback = [&ends](char letter) {
    if (ends.count(letter) != 0) ends[letter].get_future().wait();
  };
  auto caller = std::async(std::launch::async, [this] { Ask('a'); });
  EXPECT_TRUE(Await(">a<x(x"));
  ends['x'].set_value();
  caller.get();
  EXPECT_EQ(TakeLog(">a<x(x)<A=A"), ">a<x(x)<A=A");
  device_.frame_recv_timeout_ms_ = 10;
  bus_.Say(Letter('y'));
  EXPECT_TRUE(Await("<y(y"));
  Ask('b');  // begins while a callback runs
  ends['y'].set_value();
  EXPECT_EQ(TakeLog("<y(y>b=-)<B(B)"), "<y(y>b=-)<B(B)");
  during_callback = [this](char letter) {
    if (letter == 'z') Ask('b');  // the reply would have to come in on this very thread
  };
  bus_.Say(Letter('z'));
  EXPECT_EQ(TakeLog("<z(z>b=-)<B(B)"), "<z(z>b=-)<B(B)");
}

TEST_P(WaitingCaller, WaitsItsWholeTimeWhenTheSocketIsClosedMeanwhile) {
  if (GetParam() == Receiving::AS_EVER)
    GTEST_SKIP() << "no close while a thread reads all the time";
  device_.frame_recv_timeout_ms_ = 100;
  AwaitSleepOfReceiver();
  const auto start = steady_clock::now();
  auto caller = std::async(std::launch::async, [this] { Ask('c'); });
  EXPECT_TRUE(Await(">c"));
  EXPECT_EQ(device_.CloseDevice(), 0);
  caller.get();
  EXPECT_GE(steady_clock::now() - start, 100ms);
  EXPECT_EQ(TakeLog(">c=-"), ">c=-");
  EXPECT_THROW(device_.SendRequestSynchInternal(Request('a')), LinkError);
}

// What is asked here for is the thread sanitizer's opinion, too.
TEST_P(WaitingCaller, GetsItsOwnReplyAmongManyWhileTheWayOfReceivingChanges) {
  answers_ = {{'a', "xA"}, {'b', "B"}, {'c', "Cy"}, {'d', "zDz"}};
  device_.SetSerializedRequestQueue(false);
  std::atomic<int> right{0};
  std::vector<std::thread> callers;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    callers.emplace_back([this, letter, &right] {
      for (int i = 0; i < 100; ++i) {
        const auto reply = device_.SendRequestSynch(Request(letter));
        if (reply.can_id == ReplyTo(static_cast<std::uint32_t>(letter))) ++right;
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    device_.SetReceiving(i % 2 == 0 ? Receiving::AS_EVER : Receiving::BY_EVENTS);
    bus_.Say(Letter('w'));
  }
  device_.SetReceiving(GetParam());
  for (auto& caller : callers) caller.join();
  EXPECT_EQ(right, 400);
  const auto callbacks = [this] { return std::count(log_.begin(), log_.end(), ')'); };
  std::unique_lock lock(mutex_);
  EXPECT_TRUE(changed_.wait_for(lock, kLongest, [&] { return callbacks() == 500; }));
  EXPECT_THAT(callback_threads_, testing::ElementsAre(device_.recv_thread_->get_id()));
}

TEST_P(WaitingCaller, ReadsForItselfByEventsAlone) {
  answers_ = {{'a', "A"}};
  // Now and then the receive thread is looking when a request goes out, and reads for it.
  for (int i = 0; i < 100 && reply_shown_by_ != std::this_thread::get_id(); ++i) Ask('a');
  const bool own = reply_shown_by_ == std::this_thread::get_id();
  EXPECT_EQ(own, GetParam() == Receiving::BY_EVENTS);
}

/// A Brisa at the end of a socket pair, and the hand object for it, by events.
class HandByEvents : public testing::Test {
 protected:
  sim::SimulatedHand simulated_{sim::kBrisa, kId};
  Bus bus_{[this](const canfd_frame& request) {
    std::vector<canfd_frame> replies;
    for (const auto& reply : simulated_.Handle(test::ToSimFrame(request), steady_clock::now())) {
      replies.push_back(test::ToSocketFrame(reply));
    }
    return replies;
  }};
  std::unique_ptr<CanBusDeviceSocketCan> MakeDevice() {
    auto device = std::make_unique<CanBusDeviceSocketCan>("pair");
    device->SetReceiving(Receiving::BY_EVENTS);
    device->frame_recv_timeout_ms_ = 60'000;
    return device;
  }
  KorvaneBrisaCanImpl hand_{HandType::RIGHT, kId, MakeDevice()};
};

TEST_F(HandByEvents, AsksWithoutAllocating) {
  if (!AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  for (const bool queue : {true, false}) {
    if (!queue) EnableConcurrentCalls(hand_);
    hand_.GetJointMotorPosi(3);
    int failed = 0;
    const AllocationHook hook(0, 1, [] {});
    for (int i = 0; i < 100; ++i) {
      if (hand_.GetJointMotorPosi(3) != 4096) ++failed;
    }
    EXPECT_FALSE(hook.Ran());
    EXPECT_EQ(failed, 0);
  }
}

}  // namespace
}  // namespace talvera::korvane
