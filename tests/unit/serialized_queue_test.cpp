// The queue in front of the request engine. What several threads do there is pinned with items
// made by hand and elections of one thread, so that no test depends on who comes first.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

#include "support/scripted_device.h"

namespace talvera::korvane {
namespace {

using test::MakeFrame;
using test::ScriptedDevice;
using testing::ElementsAre;
using testing::IsEmpty;

using Item = CanBusDeviceBase::SerializedRequestItem;
using Ids = std::vector<std::uint32_t>;

constexpr const char* kDisabled = "CAN serialized request queue was disabled while waiting";

class SerializedQueue : public testing::Test {
 protected:
  SerializedQueue() {
    device_.matched_rep_id_ = [](std::uint32_t id) { return id; };
    device_.SetScript([this](const CanfdFrame& sent) { return Answer(sent); });
    device_.SetFrameRecvTimeout(10);
  }

  /// Every request is answered at once, with its own identifier in the first byte.
  std::vector<CanfdFrame> Answer(const CanfdFrame& sent) {
    const auto mark = static_cast<std::uint8_t>(sent.can_id);
    device_.umap_rep_[sent.can_id] = MakeFrame(sent.can_id, {mark});
    return {};
  }

  /// Another caller's item, as if that caller had just put it there.
  std::shared_ptr<Item> Enqueue(std::uint32_t id, int priority) {
    auto item = std::make_shared<Item>();
    item->frame = MakeFrame(id);
    item->priority = priority;
    item->sequence = ++device_.serialized_sequence_;
    device_.serialized_queue_.push_back(item);
    return item;
  }

  Ids SentIds() {
    Ids ids;
    for (const auto& frame : device_.Sent()) ids.push_back(frame.can_id);
    return ids;
  }

  std::string FailureOf(std::uint32_t id) {
    try {
      device_.SendRequestSynch(MakeFrame(id));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "no exception";
  }

  ScriptedDevice device_;
};

TEST_F(SerializedQueue, ASingleCallerElectsItsOwnItemAndSeesWhatTheExchangeDid) {
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x11)).data[0], 0x11);
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x12), 1).data[0], 0x12);
  device_.send_result = -1;
  EXPECT_EQ(FailureOf(0x13), "[CANID:013][DATA:] request send failed");
  device_.send_result = 0;
  device_.SetScript({});
  EXPECT_EQ(FailureOf(0x14), "[CANID:014][DATA:] request timeout (10ms)");
  EXPECT_EQ(device_.serialized_sequence_, 4U);
  EXPECT_THAT(device_.serialized_queue_, IsEmpty());
}

TEST_F(SerializedQueue, TheMostUrgentItemGoesFirstAndAmongEqualsTheOldest) {
  const auto first = Enqueue(0x21, 0);
  const auto urgent = Enqueue(0x22, 1);
  const auto second = Enqueue(0x23, 0);
  std::swap(device_.serialized_queue_[0], device_.serialized_queue_[2]);  // age isn't the place
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x24), -1).data[0], 0x24);
  EXPECT_THAT(SentIds(), ElementsAre(0x22, 0x21, 0x23, 0x24));
}

TEST_F(SerializedQueue, AnotherCallersItemIsCarriedOutAndItsResultIsStoredThere) {
  const auto answered = Enqueue(0x31, 2);
  const auto failing = Enqueue(0x32, 1);
  device_.SetScript([this](const CanfdFrame& sent) {
    return sent.can_id == 0x32 ? std::vector<CanfdFrame>{} : Answer(sent);
  });
  // An own item of the lowest priority: both others go first, and neither result is the caller's.
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x33)).data[0], 0x33);
  EXPECT_THAT(SentIds(), ElementsAre(0x31, 0x32, 0x33));
  EXPECT_TRUE(answered->done);
  ASSERT_TRUE(answered->response);
  EXPECT_EQ(answered->response->data[0], 0x31);
  EXPECT_FALSE(answered->error);
  EXPECT_TRUE(failing->done);
  EXPECT_FALSE(failing->response);
  EXPECT_THROW(std::rethrow_exception(failing->error), std::runtime_error);
}

// Settled: who took another caller's item waits until that caller has left its call.
TEST_F(SerializedQueue, TheResultIsStoredOnlyOnceTheOwnerOfTheItemLetsGoOfIt) {
  const auto item = Enqueue(0x41, 1);
  std::unique_lock owner(item->mutex);
  auto caller = std::async(std::launch::async,
                           [this] { return device_.SendRequestSynch(MakeFrame(0x42)).data[0]; });
  device_.AwaitSent(1);
  EXPECT_THAT(SentIds(), ElementsAre(0x41));
  EXPECT_FALSE(item->done);
  EXPECT_FALSE(item->response);
  owner.unlock();
  EXPECT_EQ(caller.get(), 0x42);
  EXPECT_TRUE(item->response);
}

TEST_F(SerializedQueue, ACallerWhoseItemWasTakenWaitsUntilTheQueueIsDisabled) {
  Enqueue(0x51, 1);
  device_.SetScript([this](const CanfdFrame& sent) {
    const std::lock_guard lock(device_.serialized_queue_mutex_);
    device_.serialized_queue_.clear();  // somebody takes the caller's own item
    return Answer(sent);
  });
  auto caller = std::async(std::launch::async, [this] { return FailureOf(0x52); });
  device_.AwaitSent(1);
  device_.SetSerializedRequestQueue(false);
  EXPECT_EQ(caller.get(), kDisabled);
  EXPECT_THAT(SentIds(), ElementsAre(0x51));
}

TEST_F(SerializedQueue, DisablingItTakesTheCallersOwnItemOutAndNoOther) {
  Enqueue(0x61, 2);
  const auto other = Enqueue(0x62, 0);
  device_.SetScript([this](const CanfdFrame& sent) {
    device_.SetSerializedRequestQueue(false);
    return Answer(sent);
  });
  EXPECT_EQ(FailureOf(0x63), kDisabled);
  EXPECT_THAT(device_.serialized_queue_, ElementsAre(other));
}

TEST_F(SerializedQueue, OnceDisabledCallsGoStraightToTheExchange) {
  const auto left = Enqueue(0x71, 9);
  device_.SetSerializedRequestQueue(false);
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x72), -1).data[0], 0x72);
  EXPECT_THAT(SentIds(), ElementsAre(0x72));
  EXPECT_EQ(device_.serialized_sequence_, 1U);
  device_.SetSerializedRequestQueue(true);
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame(0x73)).data[0], 0x73);
  EXPECT_TRUE(left->done);
}

TEST_F(SerializedQueue, BothWaysKeepTheRequestInterval) {
  device_.SetRequestInterval(20);
  for (const bool enabled : {true, false}) {
    device_.SetSerializedRequestQueue(enabled);
    device_.SendRequestSynch(MakeFrame(0x81));
    const std::int64_t before = device_.last_request_time_;
    device_.SendRequestSynch(MakeFrame(0x82));
    EXPECT_GE(device_.last_request_time_ - before, 19'000'000);  // slept on another clock
  }
}

TEST_F(SerializedQueue, RepliesInSeveralFramesAndFramesWithoutReplyDoNotPassThroughIt) {
  Enqueue(0x91, 9);
  device_.SetScript({});
  device_.SendRequestWithoutReply(MakeFrame(0x92));
  device_.umap_rep_[0x93] = MakeFrame(0x93, {1});
  EXPECT_EQ(device_.SendRequestSynchMultiFrame(MakeFrame(0x93), 1).size(), 1U);
  EXPECT_THAT(SentIds(), ElementsAre(0x92, 0x93));
  EXPECT_EQ(device_.serialized_queue_.size(), 1U);
}

}  // namespace
}  // namespace talvera::korvane
