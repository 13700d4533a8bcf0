// A KorvaneBrisa on a serial line against the simulated hand: the two were written apart, from the
// two ends of the protocol, and meet on a real terminal of the kernel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_observe.h"
#include "korvane_sim/serial_hand.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"
#include "support/capture.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;

constexpr std::uint8_t kId = 0x21;

class BrisaOnSerial : public testing::Test {
 protected:
  BrisaOnSerial() { Open(); }

  void Open() {
    hand_.reset();
    CaptureStreams([&] {
      hand_ =
          std::make_unique<KorvaneBrisaSerialImpl>(HandType::RIGHT, kId, device_.Path(), 115200);
    });
    hand_->SetFrameRecvTimeout(1000);
  }

  sim::SerialHand device_{sim::SimulatedHand(sim::kBrisa, kId)};
  std::unique_ptr<KorvaneBrisaSerialImpl> hand_;
};

template <auto kFactory>
std::unique_ptr<KorvaneBase> Made(const std::string& port) {
  return kFactory(HandType::LEFT, kId, port, 115200);
}

/// All factories that take the name of a port make a hand with both interfaces there.
TEST_F(BrisaOnSerial, ComesFromEachFactory) {
  for (const auto make :
       {&Made<&KorvaneBrisa::createHandByUsb>, &Made<&KorvaneBrisa::createHandByRs485>,
        &Made<&PrivateKorvaneBrisa::createHandByUsb>,
        &Made<&PrivateKorvaneBrisa::createHandByRs485>}) {
    hand_.reset();
    std::unique_ptr<KorvaneBase> made;
    CaptureStreams([&] { made = make(device_.Path()); });
    hand_.reset(&dynamic_cast<KorvaneBrisaSerialImpl&>(*made.release()));
    EXPECT_TRUE(hand_->connected);
    EXPECT_TRUE(hand_->mirrored);
    EXPECT_EQ(hand_->device_id, kId);
    EXPECT_EQ(hand_->Device()->getBaudrate(), 115200U);
    // A reply that comes before the library waits for it is lost, which a busy machine makes
    // likely.
    while (!hand_->SaveParam()) std::this_thread::yield();
  }
}

/// The receive thread is in the middle of its work when the hand goes.
TEST_F(BrisaOnSerial, GoesWhileRepliesComeIn) {
  for (int i = 0; i < 20; ++i) {
    for (int request = 0; request < 10; ++request) hand_->SetJointMotorPosi(1, 1);
    Open();
  }
}

/// What a program changes at any time, while two hands talk, one of them with two threads.
TEST_F(BrisaOnSerial, TalksWhileReceivingTapsAndSinkChange) {
  constexpr int kRequests = 100;
  sim::SerialHand other_device({sim::kBrisa, kId});
  CaptureStreams([&] {
    std::atomic<int> busy{3};
    std::atomic<int> shown{0};
    KorvaneBrisaSerialImpl other(HandType::LEFT, kId, other_device.Path(), 921600);
    std::vector<std::thread> callers;
    for (auto* const hand : {hand_.get(), hand_.get(), &other}) {
      hand->SetFrameRecvTimeout(10);
      callers.emplace_back([hand, &busy] {
        for (int i = 0; i < kRequests; ++i) {
          const Failure failure =
              Checked(*hand, [](auto& h) { return h.GetPowerState(); }).failure();
          EXPECT_THAT(
              (std::array{FailureKind::NONE, FailureKind::NO_REPLY, FailureKind::BAD_REPLY}),
              testing::Contains(failure.kind));
        }
        --busy;
      });
    }
    for (int i = 0; busy > 0; ++i) {
      SetLogSink(i % 3 == 0 ? LogSink() : SilentLog());
      for (auto* const hand : {hand_.get(), &other}) {
        SetReceiving(*hand, i % 2 == 0 ? Receiving::BY_EVENTS : Receiving::AS_EVER);
        if (i % 4 == 0) ObserveFrames(*hand, [&shown](const FrameEvent&) { ++shown; });
        if (i % 4 == 2) ObserveFrames(*hand, nullptr);
        EXPECT_FALSE(StatisticsOf(*hand).link_lost);
      }
      std::this_thread::yield();
    }
    for (std::thread& caller : callers) caller.join();
    for (auto* const hand : {hand_.get(), &other}) {
      ObserveFrames(*hand, nullptr);
      EXPECT_EQ(StatisticsOf(*hand).requests, (hand == &other ? 1U : 2U) * kRequests);
    }
    EXPECT_GT(shown, 0);
    SetLogSink({});
  });
}

TEST_F(BrisaOnSerial, FailsInItsTimeWhenThePortDisappears) {
  device_.Unplug();
  hand_->SetFrameRecvTimeout(10);
  const auto written = CaptureStreams([&] {
    EXPECT_EQ(hand_->GetJointMotorPosi(1), -1);
    EXPECT_EQ(hand_->GetFwVersion().last, 0);
  });
  EXPECT_NE(written.out.find("get joint motor posi failed, joint_motor_index: 1\n"),
            std::string::npos);
  EXPECT_NE(written.err.find("[KorvaneBrisaSerialImpl] GetFwVersion: "), std::string::npos);
}

}  // namespace
}  // namespace talvera::korvane
