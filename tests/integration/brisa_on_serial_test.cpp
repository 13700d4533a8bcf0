// A KorvaneBrisa on a serial line against the simulated hand: the two were written apart, from the
// two ends of the protocol, and meet on a real terminal of the kernel.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <filesystem>
#include <memory>
#include <thread>

#include "korvane_link.h"
#include "korvane_log.h"
#include "korvane_observe.h"
#include "korvane_sim/serial_hand.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"
#include "support/capture.h"
#include "support/impatient_clock.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;

constexpr std::uint8_t kId = 0x21;
constexpr int kPatientMs = 1000;

class BrisaOnSerial : public testing::Test {
 protected:
  BrisaOnSerial()
      : link_(std::filesystem::temp_directory_path() /
              ("korvane-serial-" + std::to_string(getpid()) + "-" +
               testing::UnitTest::GetInstance()->current_test_info()->name())),
        device_({sim::kBrisa, kId}, link_.string()) {
    Open();
  }

  void Open() {
    hand_.reset();
    CaptureStreams([&] {
      hand_ =
          std::make_unique<KorvaneBrisaSerialImpl>(HandType::RIGHT, kId, link_.string(), 115200);
    });
    hand_->SetFrameRecvTimeout(kPatientMs);
    hand_->Device()->clock_ = &clock_;
  }

  /// Asks until the answer is the expected one: a reply that comes before the library waits for it
  /// is lost, which a busy machine makes likely.
  template <class Ask, class Answer>
  static void ExpectInTheEnd(const Ask& ask, const Answer& expected) {
    CaptureStreams([&] {
      while (ask() != expected) std::this_thread::yield();
    });
  }

  std::filesystem::path link_;
  test::ImpatientClock clock_;
  sim::SerialHand device_;
  std::unique_ptr<KorvaneBrisaSerialImpl> hand_;
};

/// All factories that take the name of a port make a hand with both interfaces there.
TEST_F(BrisaOnSerial, ComesFromEachFactory) {
  using Make = std::unique_ptr<KorvaneBase> (*)(const std::string&);
  constexpr auto kSide = HandType::LEFT;
  for (const Make make : {Make([](const std::string& port) -> std::unique_ptr<KorvaneBase> {
                            return KorvaneBrisa::createHandByUsb(kSide, kId, port, 115200);
                          }),
                          Make([](const std::string& port) -> std::unique_ptr<KorvaneBase> {
                            return KorvaneBrisa::createHandByRs485(kSide, kId, port, 115200);
                          }),
                          Make([](const std::string& port) -> std::unique_ptr<KorvaneBase> {
                            return PrivateKorvaneBrisa::createHandByUsb(kSide, kId, port, 115200);
                          }),
                          Make([](const std::string& port) -> std::unique_ptr<KorvaneBase> {
                            return PrivateKorvaneBrisa::createHandByRs485(kSide, kId, port, 115200);
                          })}) {
    hand_.reset();
    std::unique_ptr<KorvaneBase> made;
    CaptureStreams([&] { made = make(link_.string()); });
    hand_.reset(&dynamic_cast<KorvaneBrisaSerialImpl&>(*made.release()));
    EXPECT_TRUE(hand_->connected);
    EXPECT_TRUE(hand_->mirrored);
    EXPECT_EQ(hand_->device_id, kId);
    EXPECT_EQ(hand_->Device()->getBaudrate(), 115200U);
    ExpectInTheEnd([&] { return hand_->SaveParam(); }, true);
  }
}

/// The receive thread is in the middle of its work when the hand goes.
TEST_F(BrisaOnSerial, GoesWhileRepliesComeIn) {
  for (int i = 0; i < 20; ++i) {
    for (int request = 0; request < 10; ++request) hand_->SetJointMotorPosi(1, 1);
    Open();
  }
}

/// What a program changes at any time, while two hands talk.
TEST_F(BrisaOnSerial, TalksWhileReceivingTapsAndSinkChange) {
  constexpr int kRequests = 100;
  sim::SerialHand other_device({sim::kBrisa, kId});
  CaptureStreams([&] {
    std::atomic<int> busy{2};
    std::atomic<int> shown{0};
    KorvaneBrisaSerialImpl other(HandType::LEFT, kId, other_device.Path(), 921600);
    std::vector<std::thread> callers;
    for (auto* const hand : {hand_.get(), &other}) {
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
      EXPECT_EQ(StatisticsOf(*hand).requests, unsigned{kRequests});
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
    EXPECT_EQ(hand_->SetJointMotorPosi(1, 1), -1);
    EXPECT_FALSE(hand_->SaveParam());
    EXPECT_TRUE(hand_->GetAllCurrentReport().empty());
    EXPECT_EQ(hand_->GetFwVersion().last, 0);
  });
  EXPECT_NE(written.out.find("get joint motor posi failed, joint_motor_index: 1\n"),
            std::string::npos);
  EXPECT_NE(written.err.find("[KorvaneBrisaSerialImpl] GetFwVersion: "), std::string::npos);
  device_.Plug();
  CaptureStreams([&] { EXPECT_TRUE(hand_->Device()->Reconnect()); });
  hand_->SetFrameRecvTimeout(kPatientMs);
  ExpectInTheEnd([&] { return hand_->SaveParam(); }, true);
}

TEST_F(BrisaOnSerial, TwoThreadsMayReadAtOnce) {
  std::thread other([&] {
    for (int i = 0; i < 20; ++i) hand_->GetAllTemperatureReport();
  });
  CaptureStreams([&] {
    for (int i = 0; i < 20; ++i) hand_->GetAllCurrentReport();
    other.join();
  });
}

}  // namespace
}  // namespace talvera::korvane
