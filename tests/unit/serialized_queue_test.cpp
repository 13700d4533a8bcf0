// The queue in front of the request engine. What several threads do there is pinned with items
// made by hand and elections of one thread, so that no test depends on who comes first.

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>

#include "support/recording_device.h"

namespace talvera::korvane {
namespace {

using namespace test;

constexpr const char* kDisabled = "CAN serialized request queue was disabled while waiting";

/// Requests are told apart by letters: their identifiers, and the first byte of their replies.
class SerializedQueue : public testing::Test {
 protected:
  SerializedQueue() {
    device_.matched_rep_id_ = [](std::uint32_t id) { return id; };
    device_.script = answer_;
    device_.SetFrameRecvTimeout(10);
  }

  /// Another caller's item, as if that caller had just put it there.
  auto Enqueue(std::uint32_t id, int priority) {
    auto item = std::make_shared<CanBusDeviceBase::SerializedRequestItem>();
    item->frame = MakeFrame(id);
    item->priority = priority;
    item->sequence = ++device_.serialized_sequence_;
    device_.serialized_queue_.push_back(item);
    return item;
  }

  /// The letter of the reply, or what is thrown instead.
  std::string Request(std::uint32_t id, int priority = 0) {
    try {
      return {static_cast<char>(device_.SendRequestSynch(MakeFrame(id), priority).data[0])};
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  std::string TakeSent() {
    std::string ids;
    for (const auto& frame : device_.TakeSent()) ids += static_cast<char>(frame.can_id);
    return ids;
  }

  RecordingDevice device_;
  /// As if the reply had come at once.
  const RecordingDevice::Script answer_ = [this](const CanfdFrame& sent) {
    device_.umap_rep_[sent.can_id] = MakeFrame(0, {static_cast<std::uint8_t>(sent.can_id)});
    return std::vector<CanfdFrame>{};
  };
};

TEST_F(SerializedQueue, ASingleCallerElectsItsOwnItemAndSeesWhatTheExchangeDid) {
  EXPECT_EQ(device_.SendRequestSynch(MakeFrame('a')).data[0], 'a');
  EXPECT_EQ(Request('b', 1), "b");
  device_.script = CantSend();
  EXPECT_EQ(Request(0x13), "[CANID:013][DATA:] request send failed");
  device_.script = RepliesInFrames({});
  EXPECT_EQ(Request(0x14), "[CANID:014][DATA:] request timeout (10ms)");
  EXPECT_EQ(device_.serialized_sequence_, 4U);
  EXPECT_TRUE(device_.serialized_queue_.empty());
}

TEST_F(SerializedQueue, TheMostUrgentThenOldestItemIsCarriedOutForWhoeverOwnsIt) {
  const auto failing = Enqueue('b', 0);
  const auto urgent = Enqueue('a', 1);
  Enqueue('c', 0);
  std::swap(device_.serialized_queue_[0], device_.serialized_queue_[2]);  // age isn't the place
  device_.script = [this](const CanfdFrame& sent) {
    return (sent.can_id == 'b' ? RepliesInFrames({}) : answer_)(sent);
  };
  EXPECT_EQ(Request('d', -1), "d");
  EXPECT_EQ(TakeSent(), "abcd");
  EXPECT_TRUE(urgent->done);
  ASSERT_TRUE(urgent->response);
  EXPECT_EQ(urgent->response->data[0], 'a');
  EXPECT_FALSE(urgent->error);
  EXPECT_TRUE(failing->done);
  EXPECT_FALSE(failing->response);
  EXPECT_THROW(std::rethrow_exception(failing->error), std::runtime_error);
}

// Settled: who took another caller's item waits until that caller has left its call.
TEST_F(SerializedQueue, TheResultIsStoredOnlyOnceTheOwnerOfTheItemLetsGoOfIt) {
  const auto item = Enqueue('a', 1);
  std::unique_lock owner(item->mutex);
  auto caller = std::async(std::launch::async, [this] { return Request('b'); });
  device_.AwaitSent(1);
  EXPECT_EQ(TakeSent(), "a");
  EXPECT_FALSE(item->done);
  EXPECT_FALSE(item->response);
  owner.unlock();
  EXPECT_EQ(caller.get(), "b");
  EXPECT_TRUE(item->response);
}

TEST_F(SerializedQueue, ACallerWhoseItemWasTakenWaitsUntilTheQueueIsDisabled) {
  Enqueue('a', 1);
  device_.script = [this](const CanfdFrame& sent) {
    const std::lock_guard lock(device_.serialized_queue_mutex_);
    device_.serialized_queue_.clear();  // somebody takes the caller's own item
    return answer_(sent);
  };
  auto caller = std::async(std::launch::async, [this] { return Request('b'); });
  device_.AwaitSent(1);
  device_.SetSerializedRequestQueue(false);
  EXPECT_EQ(caller.get(), kDisabled);
  EXPECT_EQ(TakeSent(), "a");
}

TEST_F(SerializedQueue, DisablingItTakesTheCallersOwnItemOutAndNoOther) {
  Enqueue('a', 2);
  const auto other = Enqueue('c', 0);
  device_.script = [this](const CanfdFrame& sent) {
    device_.SetSerializedRequestQueue(false);
    return answer_(sent);
  };
  EXPECT_EQ(Request('b'), kDisabled);
  EXPECT_EQ(device_.serialized_queue_, std::deque{other});
}

}  // namespace
}  // namespace talvera::korvane
