#include "can/can_bus_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <regex>
#include <sstream>
#include <stdexcept>

#include "can/can_bus_device_socket_can.h"
#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using namespace test;
using namespace std::chrono;
using testing::AnyOf;
using testing::IsEmpty;

using Frames = std::vector<CanfdFrame>;

constexpr std::uint32_t kRequestId = 0x07130127;
constexpr std::uint8_t kType = 0x13;

// Request, reply and the key of the reply are three different numbers, so that none can stand in
// for another.
constexpr std::uint32_t ReplyId(std::uint32_t request_id) { return request_id + 1; }
constexpr std::uint32_t Key(std::uint32_t request_id) { return request_id + 0x100; }
constexpr std::uint32_t kReplyId = ReplyId(kRequestId);
constexpr std::uint32_t kKey = Key(kRequestId);

const CanfdFrame kRequest = MakeFrame(kRequestId, {0x01, 0xab});
const std::string kRequestText = "[CANID:07130127][DATA:01 ab ]";
const std::string kError = "[ERROR][CanBusDeviceBase]";
const std::string kTold = kError + "[SendRequestSynchMultiFrame] ";

void Bind(CanBusDeviceBase& device, CanBusDeviceBase::ProcessMessage process = nullptr) {
  device.BindCallbacks(std::move(process), Key,
                       [](auto request_id, auto id) { return id == ReplyId(request_id); });
  device.frame_recv_timeout_ms_ = 60'000;
}

/// Payloads are written as digits, of which each is a byte: "30 31" are the first two frames of a
/// reply in three.
Frames Replies(const std::string& payloads, std::uint32_t request_id = kRequestId) {
  Frames frames;
  std::istringstream words(payloads);
  for (std::string word; words >> word;) {
    Bytes data(word.begin(), word.end());
    for (std::uint8_t& byte : data) byte = static_cast<std::uint8_t>(byte - '0');
    frames.push_back(MakeFrame(ReplyId(request_id), data));
  }
  return frames;
}

RecordingDevice::Script AnswerWith(const std::string& payloads) {
  return [=](const CanfdFrame& sent) { return Replies(payloads, sent.can_id); };
}

std::string Digits(const CanfdFrame& frame) {
  std::string digits(frame.data, frame.data + frame.len);
  for (char& digit : digits) digit = static_cast<char>(digit + '0');
  return digits;
}

/// The reply to kRequest, or what is thrown instead.
std::string Ask(CanBusDeviceBase& device) {
  std::string outcome;
  try {
    outcome = Digits(device.SendRequestSynchInternal(kRequest));
  } catch (const std::exception& error) {
    outcome = error.what();
  }
  EXPECT_THAT(device.pending_req_ids_, IsEmpty()) << outcome;
  return outcome;
}

/// What is told, and the frames of the reply to kRequest.
std::string Gather(CanBusDeviceBase& device, std::uint8_t expected) {
  Frames frames;
  const auto [out, err] =
      CaptureStreams([&] { frames = device.SendRequestSynchMultiFrame(kRequest, expected); });
  EXPECT_THAT(device.pending_req_ids_, IsEmpty()) << err;
  std::string text = out + err;
  for (const auto& frame : frames) text += (&frame == &frames[0] ? "" : " ") + Digits(frame);
  return text;
}

std::int64_t SystemNow() { return nanoseconds(system_clock::now().time_since_epoch()).count(); }

using Adapter = std::pair<const char*, DispatchRules>;
const Adapter kSocketCan{"SocketCan", kSocketCanDispatch};
const Adapter kZlg{"Zlg", kZlgDispatch};
const Adapter kHcan{"Hcan", kHcanDispatch};

class OnEachAdapter : public testing::TestWithParam<Adapter> {
 protected:
  OnEachAdapter() {
    Bind(device_, [this](const CanfdFrame& frame) { processed_.push_back(frame); });
  }

  /// What is told when `frame` comes in.
  std::string Dispatch(const CanfdFrame& frame) {
    return CaptureStreams([&] { device_.Dispatch(frame, rules_); }).err;
  }

  std::string UnmatchedLine(const std::string& id) const {
    if (!is_zlg_) return "";
    return "[CAN] recv can_id=0x" + id + " did not match any request\n";
  }

  const DispatchRules rules_ = GetParam().second;
  const bool is_hcan_ = GetParam().first == kHcan.first;
  const bool is_zlg_ = GetParam().first == kZlg.first;
  const bool is_socket_can_ = GetParam().first == kSocketCan.first;
  Frames processed_;
  RecordingDevice device_{true, rules_};
};
INSTANTIATE_TEST_SUITE_P(Rules, OnEachAdapter, testing::Values(kSocketCan, kZlg, kHcan),
                         [](const auto& tested) { return tested.param.first; });

TEST_P(OnEachAdapter, AReplyThatComesBeforeSendFrameReturnsIsNotMissed) {
  std::promise<void> started;
  std::future<void> receiver;
  device_.script = [&](const CanfdFrame&) {
    receiver = std::async(std::launch::async, [&] {
      started.set_value();
      device_.Dispatch(MakeFrame(kReplyId, {9}), rules_);
    });
    started.get_future().wait();
    return Frames{};
  };
  EXPECT_EQ(FormatFrame(device_.SendRequestSynchInternal(kRequest)), "[CANID:07130128][DATA:09 ]");
  receiver.wait();
  EXPECT_THAT(device_.pending_req_ids_, IsEmpty());
}

TEST_P(OnEachAdapter, RequestsOfSeveralThreadsGoOneAtATimeAndEachGetsItsOwnReply) {
  std::atomic<int> own_replies{0}, overlaps{0};
  device_.script = [&](const CanfdFrame& sent) {
    // Where matches are consumed, an identifier goes before its reply is taken.
    if (!device_.pending_req_ids_.empty() || !device_.umap_rep_.empty()) ++overlaps;
    return Replies(Digits(sent), sent.can_id);
  };
  std::vector<std::future<void>> callers;
  for (std::uint8_t caller = 0; caller < 4; ++caller) {
    callers.push_back(std::async(std::launch::async, [&, caller] {
      for (std::uint8_t i = 0; i < 25; ++i) {
        const CanfdFrame request = MakeFrame(0x100U + caller * 2U, {caller, i});
        if (Digits(device_.SendRequestSynchInternal(request)) == Digits(request)) ++own_replies;
      }
    }));
  }
  for (auto& caller : callers) caller.get();
  EXPECT_EQ(own_replies, 100);
  EXPECT_EQ(overlaps, 0);
}

TEST_P(OnEachAdapter, ARequestWaitsUntilThePendingSetIsDrained) {
  bool drained = false;
  device_.pending_req_ids_ = {0x99};
  device_.script = [&](const CanfdFrame&) { return Replies(drained ? "5" : "6"); };
  auto caller = std::async(std::launch::async, [&] { return Ask(device_); });
  {
    const std::lock_guard lock(device_.request_mutex_);
    drained = true;
    device_.pending_req_ids_.clear();
    device_.drain_cv_.notify_all();
  }
  EXPECT_EQ(caller.get(), "5");
}

TEST_P(OnEachAdapter, ARequestThatFailsSaysWhyAndFreesTheDevice) {
  const auto expect_failure = [&](const std::string& single, const std::string& several) {
    EXPECT_EQ(Ask(device_), single);
    EXPECT_EQ(Gather(device_, 3), kTold + several + "\n");
    Bind(device_);
    device_.script = AnswerWith("7");
    EXPECT_EQ(Ask(device_), "7");
    device_.script = AnswerWith("");
  };
  device_.script = CantSend();
  EXPECT_EQ(device_.SendRequestWithoutReply(kRequest), -1);
  const std::string send_failed = kRequestText + " request send failed";
  expect_failure(send_failed, send_failed);
  EXPECT_THAT(device_.multiframe_types_, IsEmpty());
  device_.frame_recv_timeout_ms_ = -1;
  expect_failure(kRequestText + " request timeout (-1ms)", kRequestText + " first frame timeout");
  device_.matched_rep_id_ = nullptr;
  expect_failure("bad_function_call", "bad_function_call");
}

TEST_P(OnEachAdapter, ARequestOfATypeInSeveralFramesWaitsTheWholeTimeoutForIndexZeroOnly) {
  device_.multiframe_types_ = {kType};
  device_.umap_multiframe_rep_[kKey][1] = MakeFrame(kReplyId, {2, 1});
  device_.SetFrameRecvTimeout(10);
  const auto start = steady_clock::now();
  EXPECT_EQ(Ask(device_), kRequestText + " request timeout (10ms)");
  EXPECT_GE(steady_clock::now() - start, 10ms);
  // A wait that ends exactly with its time-out says nothing, a later one does.
  EXPECT_THAT(Gather(device_, 3), AnyOf("", kTold + kRequestText + " first frame timeout\n"));
  device_.script = AnswerWith("20");
  device_.frame_recv_timeout_ms_ = 60'000;
  EXPECT_EQ(Ask(device_), "20");
  EXPECT_EQ(device_.umap_multiframe_rep_.at(kKey).count(1), 1U) << "other frames stay";
}

const std::string kMissing =
    "[DEBUG][MultiFrame] timeout waiting for frame 1/3 | req_id=0x7130127 | rep_id=0x7130227"
    " | frames_received=";
const std::string kOne = kMissing + "1 | first_frame_data[0]=3 data[1]=0 | ";
const std::string kNoMore = "umap_multiframe_rep_ empty for this rep_id";

TEST(MultiFrameReply, IsGatheredByIndexAsFarAsItGoesAndTheRestStaysInTheTable) {
  struct Gathering {
    const char* name;
    std::uint8_t expected;
    std::string single, parts;  // in the tables when the request goes out
    std::string received, result, left, told = {};
  };
  const Gathering gatherings[] = {
      {"out of order", 3, "", "", "32 30 31", "30 31 32", ""},
      {"shorter than expected", 5, "", "", "20 21", "20 21", ""},
      {"longer than expected", 3, "", "", "53 54 52 51 50", "50 51 52", "53 54"},
      {"total of zero", 3, "", "", "00", "00", ""},
      {"total of one", 3, "", "", "10", "10", ""},
      {"nothing expected", 0, "", "", "30", "30", ""},
      {"repeated frame", 2, "", "", "211 212 20", "20 212", ""},
      {"part that an earlier reply left", 2, "", "217", "20", "20 217", ""},
      {"single frame of more than expected", 3, "40", "", "", "40", ""},
      {"single frame of one", 3, "10", "", "", "10", ""},
      // Settled: a reply that began before its type was known lacks its first frame.
      {"type learned late", 3, "30", "31 32", "", "31 32", "30"},
      {"then no more", 3, "30", "", "", "", "30",
       kMissing + "0 | first_frame_data[0]=0 data[1]=0 | umap_multiframe_rep_ has frames: [0 ]\n"},
      {"gap", 3, "", "30 32", "", "30", "32", kOne + "umap_multiframe_rep_ has frames: [2 ]\n"},
      {"first part only", 3, "", "30", "", "30", "", kOne + kNoMore + "\n"},
      {"first part beside a single frame", 3, "79", "30", "", "30", "",
       kOne + kNoMore + " | umap_rep_ has frame with data[0]=7 data[1]=9\n"}};
  for (const auto& tested : gatherings) {
    SCOPED_TRACE(tested.name);
    RecordingDevice device;
    Bind(device);
    if (!tested.told.empty()) device.SetFrameRecvTimeout(10);
    for (const auto& frame : Replies(tested.single)) device.umap_rep_[kKey] = frame;
    auto& parts = device.umap_multiframe_rep_;
    for (const auto& frame : Replies(tested.parts)) parts[kKey][frame.data[1]] = frame;
    device.script = AnswerWith(tested.received);
    EXPECT_EQ(Gather(device, tested.expected), tested.told + tested.result);
    EXPECT_EQ(device.multiframe_types_.count(kType), 1U);
    ASSERT_EQ(parts.size(), tested.left.empty() ? 0U : 1U) << "an empty entry is dropped";
    std::string left;
    for (const auto& part : parts[kKey]) left += (left.empty() ? "" : " ") + Digits(part.second);
    EXPECT_EQ(left, tested.left);
  }
}

TEST(MultiFrameReply, LosesAllButItsFirstFrameWhereMatchesAreConsumed) {
  std::string processed;
  RecordingDevice device(true, kHcan.second);
  device.script = AnswerWith("30 31 32");
  Bind(device, [&](const CanfdFrame& frame) {
    processed += Digits(frame);
    if (frame.data[1] != 2) return;
    const std::lock_guard lock(device.request_mutex_);  // ends the wait for frame 1
    device.frame_recv_timeout_ms_ = 10;
    device.reply_cv_.notify_all();
  });
  EXPECT_EQ(Gather(device, 3), kOne + kNoMore + "\n30");
  device.Settle();
  EXPECT_EQ(processed, "303132");
}

TEST_P(OnEachAdapter, SettersHoldTheirValuesWithinBoundsAndDelayNoRequest) {
  EXPECT_EQ(device_.GetRequestInterval(), 0);
  EXPECT_EQ(RecordingDevice().GetFrameRecvTimeout(), 50);
  const int cases[][3] = {{-5, 0, 10},     {9, 9, 10},        {10, 10, 10},     {100, 100, 100},
                          {101, 100, 101}, {1000, 100, 1000}, {1001, 100, 1000}};
  for (const auto& [set, interval, timeout] : cases) {
    device_.last_request_time_ = SystemNow();
    device_.SetRequestInterval(set);
    EXPECT_EQ(device_.GetRequestInterval(), interval);
    EXPECT_LE(device_.last_request_time_ + interval * 1'000'000LL, SystemNow());
    device_.SetFrameRecvTimeout(set);
    EXPECT_EQ(device_.GetFrameRecvTimeout(), timeout);
  }
}

TEST_P(OnEachAdapter, RequestsWithoutReplyKeepTheIntervalAndPassOnWhatSendFrameReturns) {
  device_.script = AnswerWith("1");
  device_.sent_result = 3;
  device_.SetRequestInterval(20);
  EXPECT_EQ(Ask(device_), "1");
  device_.script = AnswerWith("");
  for (int i = 0; i < 2; ++i) {  // after a reply, and after another of its kind
    const std::int64_t before = device_.last_request_time_;
    EXPECT_EQ(device_.SendRequestWithoutReply(kRequest), 3);
    // The gap is slept on another clock, which may run apart from this one a little.
    EXPECT_GE(device_.last_request_time_ - before, 19'000'000);
    EXPECT_EQ(FormatFrame(device_.TakeSent().back()), kRequestText);
    EXPECT_THAT(device_.pending_req_ids_, IsEmpty());
  }
  // After the clock was set back by an hour the gap is still one interval.
  const auto start = steady_clock::now();
  device_.last_request_time_ = SystemNow() + 3'600'000'000'000;
  device_.EnforceRequestInterval();
  EXPECT_GE(steady_clock::now() - start, 20ms);
  EXPECT_LE(device_.last_request_time_, SystemNow());
}

TEST_P(OnEachAdapter, ARequestKeepsTheIntervalHoweverItIsMade) {
  device_.script = AnswerWith("10");
  device_.SetRequestInterval(20);
  const std::function<void()> ways[] = {
      [&] { device_.SendRequestSynch(kRequest); },
      [&] { device_.RequestFrames(kRequest, 1); },
      [&] { device_.SendRequestSynchMultiFrame(kRequest, 1); },
  };
  for (const auto& request : ways) {
    device_.last_request_time_ = SystemNow();
    const auto start = steady_clock::now();
    request();
    EXPECT_GE(steady_clock::now() - start, 19ms);
  }
}

TEST_P(OnEachAdapter, OnlyAReplyInOneFrameMarksTheTimeOfTheLastRequest) {
  device_.script = [&](const CanfdFrame&) {
    device_.last_request_time_ = 0;
    return Replies("10");
  };
  EXPECT_EQ(Ask(device_), "10");
  EXPECT_GT(device_.last_request_time_, 0);
  EXPECT_EQ(Gather(device_, 1), "10");
  EXPECT_EQ(device_.last_request_time_, 0);
}

TEST_P(OnEachAdapter, AMatchedFrameIsStoredUnderItsKeyAndOfATypeInSeveralFramesByItsIndex) {
  for (const char* payload : {"42", "6"}) {  // the later frame counts
    device_.pending_req_ids_ = {kRequestId};
    EXPECT_EQ(Dispatch(Replies(payload)[0]), "");
    EXPECT_EQ(device_.umap_rep_.size(), 1U);
    EXPECT_EQ(Digits(device_.umap_rep_.at(kKey)), payload);
    EXPECT_EQ(device_.pending_req_ids_.count(kRequestId), is_hcan_ ? 0U : 1U);
  }
  EXPECT_EQ(processed_.size(), is_hcan_ ? 2U : 0U);
  device_.multiframe_types_ = {kType};
  device_.pending_req_ids_ = {kRequestId};
  Dispatch(MakeFrame(kReplyId, {4, 3}));
  EXPECT_EQ(Digits(device_.umap_rep_.at(kKey)), "6");
  EXPECT_EQ(Digits(device_.umap_multiframe_rep_.at(kKey).at(3)), "43");
}

TEST_P(OnEachAdapter, FlagBitsDoNotMatterAndTheFirstMatchEndsTheWalkUnlessMatchesAreConsumed) {
  constexpr std::uint32_t kFlags = 0xE0000000;
  constexpr std::uint32_t kOther = 0x07130201;
  device_.SetMsgMatchJudge([](std::uint32_t request_id, std::uint32_t frame_id) {
    return (request_id == kRequestId || request_id == kOther) && frame_id == kReplyId;
  });
  device_.pending_req_ids_ = {kFlags | kRequestId, kFlags | kOther};
  Dispatch(MakeFrame(kFlags | kReplyId));
  EXPECT_EQ(device_.umap_rep_.size(), is_hcan_ ? 2U : 1U);
  EXPECT_EQ(device_.pending_req_ids_.size(), is_hcan_ ? 0U : 2U);
  const auto& [key, frame] = *device_.umap_rep_.begin();
  EXPECT_THAT(key, AnyOf(Key(kFlags | kRequestId), Key(kFlags | kOther)));
  EXPECT_EQ(frame.can_id, kFlags | kReplyId) << "the frame keeps them";
}

TEST_P(OnEachAdapter, AnUnmatchedFrameGoesToTheCallbackOnlyAndWithoutAJudgeEveryFrameIsOne) {
  device_.pending_req_ids_ = {kRequestId};
  EXPECT_EQ(Dispatch(MakeFrame(0x80000A12, {3})), UnmatchedLine("a12"));
  device_.SetMsgMatchJudge(nullptr);
  EXPECT_EQ(Dispatch(MakeFrame(kReplyId)), UnmatchedLine("7130128"));
  ASSERT_EQ(processed_.size(), 2U);
  EXPECT_EQ(processed_[0].can_id, 0x80000A12);
  device_.process_msg_ = nullptr;
  EXPECT_EQ(Dispatch(MakeFrame(0x80000A12)), UnmatchedLine("a12"));
  EXPECT_THAT(device_.umap_rep_, IsEmpty());
  EXPECT_EQ(device_.pending_req_ids_.size(), 1U);
}

TEST_P(OnEachAdapter, WhatCallbacksThrowIsToldInOneLineAndGoesNoFurther) {
  device_.pending_req_ids_ = {kRequestId};
  const CanfdFrame reply = MakeFrame(kReplyId);
  const auto expect_caught = [&](auto fail, const std::string& what) {
    device_.BindCallbacks([=](auto&) { fail(); }, Key, nullptr);
    EXPECT_EQ(Dispatch(reply), UnmatchedLine("7130128") + kError + "[ProcessMsg] " + what);
    device_.BindCallbacks(
        nullptr, [=](auto id) { return fail(), id; }, [](auto, auto) { return true; });
    EXPECT_EQ(Dispatch(reply), kError + "[RecvFrame] " + what);
    device_.SetMsgMatchJudge([=](auto, auto) { return fail(), true; });
    EXPECT_EQ(Dispatch(reply), kError + "[RecvFrame] " + what);
  };
  expect_caught([] { throw std::runtime_error("broken callback"); }, "broken callback\n");
  expect_caught([] { throw 42; }, "unknown exception\n");
  Bind(device_);
  Dispatch(MakeFrame(kReplyId, {8}));
  EXPECT_EQ(Digits(device_.umap_rep_.at(kKey)), "8") << "no lock is left behind";
}

TEST_P(OnEachAdapter, TheCallbackRunsOutsideTheLockAndMaySend) {
  device_.process_msg_ = [&](const CanfdFrame& frame) {
    auto is_free = std::async(std::launch::async, [&] {
      return std::unique_lock(device_.request_mutex_, std::try_to_lock).owns_lock();
    });
    if (is_free.get()) device_.SendRequestWithoutReply(frame);
  };
  Dispatch(MakeFrame(0x123, {1}));
  EXPECT_EQ(device_.TakeSent().size(), 1U);
}

TEST(FrameText, HasThreeDigitsForStandardAndEightForExtendedIdentifiers) {
  const std::pair<CanfdFrame, std::string> cases[] = {
      {MakeFrame(0), "[CANID:000][DATA:]"},
      {MakeFrame(0x7FF, {0x0a}), "[CANID:7ff][DATA:0a ]"},
      {MakeFrame(0x800, {0, 0xff}), "[CANID:00000800][DATA:00 ff ]"},
      {MakeFrame(0xE0000123), "[CANID:00000123][DATA:]"},
      {MakeFrame(0xFFFFFFFF), "[CANID:1fffffff][DATA:]"}};
  for (const auto& [frame, text] : cases) EXPECT_EQ(FormatFrame(frame), text);
  EXPECT_EQ(FormatFrame(FullFrame(1, {}, 255)).size(), 18U + 64 * 3);
}

TEST(FrameText, TimestampsEndWithSixDigitsOfMicroseconds) {
  const microseconds time(1'700'000'000'000'042);
  EXPECT_THAT(FormatTimestamp(system_clock::time_point(time)), testing::EndsWith(".000042]"));
}

TEST_P(OnEachAdapter, TheFrameLogShowsEveryFrameOnceAndOnlyWhenSwitchedOn) {
  device_.script = AnswerWith("10");
  const auto ask = [&] { return CaptureStreams([&] { Ask(device_); }).out; };
  EXPECT_EQ(ask() + Gather(device_, 1), "10");
  device_.show_data_details_ = true;
  const std::string received = "RCV: [CANID:07130128][DATA:01 00 ]";
  const std::string rcv = is_socket_can_ ? received : "now " + received + "\n";
  const auto expect_log = [&](const std::string& log, const char* tag, const std::string& reply) {
    const std::regex time(R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{6}\])");
    const std::string snd = std::string("now ") + tag + kRequestText + "\n";
    // A fast reply may be logged before its request.
    EXPECT_THAT(std::regex_replace(log, time, "now"), AnyOf(snd + rcv + reply, rcv + snd + reply));
  };
  expect_log(ask(), "SND: ", "");
  expect_log(Gather(device_, 1), "SND (MultiFrame): ", "10");
}

// On a real bus it is tested elsewhere.
TEST(SocketCanWithoutInterface, TellsTheFailureAndTakesNoRequests) {
  const std::string name = "no-such-if-with-a-long-name";
  const StreamCapture err(stderr);
  CanBusDeviceSocketCan device(name);
  const std::string failed = "[ERROR]: Failed to open SocketCAN device: " + name + "\n";
  EXPECT_THAT(err.Text(),
              AnyOf("[ERROR]: Failed to create CAN socket\n" + failed,
                    "[ERROR]: Failed to get interface index for " + name + "\n" + failed));
  EXPECT_FALSE(device.IsInit());
  EXPECT_EQ(device.socket_fd_, -1);
  EXPECT_EQ(device.recv_thread_, nullptr);
  EXPECT_EQ(Ask(device), kRequestText + " request send failed");
  device.SetFrameSendTimeout(7);
  EXPECT_EQ(device.GetFrameSendTimeout(), 0);
}

}  // namespace
}  // namespace talvera::korvane
