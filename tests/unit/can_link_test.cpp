// The end of a hand on CAN while frames come in: its receive thread finds everything in place until
// it has ended. Most of it is for ThreadSanitizer to see.

#include "can/can_link.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>

#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "support/tested_hands.h"

namespace talvera::korvane {
namespace {

using namespace test;

const auto kBrisaService =
    Tested<KorvaneBrisaCanPrivateImpl>("KorvaneBrisaCanPrivateImpl", 0, 10, 0);
const auto kLumenService =
    Tested<KorvaneLumenCanPrivateImpl>("KorvaneLumenCanPrivateImpl", 3, 4, 0);

class DestroyedHand : public testing::TestWithParam<TestedHand> {
 protected:
  const TestedHand& tested_ = GetParam();
  const bool is_service_ = tested_.family == 0;
  /// The end of a firmware file is acknowledged, whereupon the receive thread itself sends the
  /// request to restart. Over the service protocol it leaves that to the caller of the update.
  const CanfdFrame acknowledgment_ =
      is_service_ ? FullFrame(9, {0xF2, 3}) : FullFrame(0x03F20000 | tested_.family | kId, {});
  const std::size_t sends_ = is_service_ ? 0 : 1;

  RecordingDevice::Script Acknowledge() const {
    return [ack = acknowledgment_](const CanfdFrame&) { return std::vector{ack}; };
  }

  /// How many frames are sent for an acknowledgment that comes when the transport's end has begun.
  std::size_t SendLate(RecordingDevice& device) const {
    device.TakeSent();
    device.Receive(acknowledgment_);
    return device.TakeSent().size();
  }
};

INSTANTIATE_TEST_SUITE_P(All, DestroyedHand,
                         testing::Values(kBrisa, kTessel, kQuill, kLumen, kVanta, kBrisaService,
                                         kLumenService),
                         testing::PrintToStringParamName());

TEST_P(DestroyedHand, StillAnswersAcknowledgmentsUntilItsReceiveThreadHasEnded) {
  std::size_t sent_late = 99;
  const auto told = CaptureStreams([&] {
    Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, tested_.make);
    std::atomic<bool> answering{true};
    rig.device->script = [&](const CanfdFrame& sent) {
      return answering ? Acknowledge()(sent) : std::vector<CanfdFrame>{};
    };
    rig.device->on_destroy = [&] {
      answering = false;
      rig.device->Settle();
      sent_late = SendLate(*rig.device);
    };
    // From here on one frame brings about the next.
    rig.device->SendRequestWithoutReply(acknowledgment_);
    rig.device->AwaitSent(1 + 10 * sends_);
    rig.hand.reset();
  });
  EXPECT_EQ(sent_late, sends_);
  EXPECT_EQ(told.err, "");
}

TEST_P(DestroyedHand, MayHaveStaticStorage) {
  const auto run = [this] {
    static Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, tested_.make);
    rig.device->on_destroy = [this, device = rig.device] {
      std::fprintf(stderr, "sent at the end: %zu\n", SendLate(*device));
    };
    std::exit(0);  // NOLINT(concurrency-mt-unsafe)
  };
  const StreamCapture out(stdout);
  EXPECT_EXIT(run(), testing::ExitedWithCode(0),
              "^sent at the end: " + std::to_string(sends_) + "\n$");
}

}  // namespace
}  // namespace talvera::korvane
