// Opening, finding and identifying hands on buses of the real kernel: interfaces that can't be
// asked, several hands on one, and hands and interfaces that go while they are asked.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/kernel_bus.h"
#include "korvane_brisa.h"
#include "korvane_link.h"
#include "korvane_open.h"
#include "korvane_tessel.h"
#include "protocol/can/can_identifier.h"
#include "support/patient_link.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using test::Interface;
using test::RawSocket;
using test::Repeat;
using test::Shell;
using test::SimulatorProcess;
using test::TestInterface;
using testing::AnyOf;
using testing::HasSubstr;

using OpenHandOnTheKernel = test::OnTheKernelsBus;

Failure FailureToOpen(const std::string& address) {
  const auto hand = OpenHand(address);
  return hand ? Failure() : hand.failure();
}

/// How OpenHand fails, once it says `text`.
void ExpectFailure(const std::string& address, FailureKind kind, const std::string& text) {
  SCOPED_TRACE(address);
  const auto failure = Repeat([&] { return FailureToOpen(address); },
                              [&](const Failure& last) { return last.kind == kind; });
  EXPECT_STREQ(ToString(failure.kind), ToString(kind));
  EXPECT_THAT(failure.text, HasSubstr(text));
}

std::unique_ptr<KorvaneBase> Open(const std::string& address) {
  auto hand = Repeat([&] { return OpenHand(address); },
                     [](const auto& last) { return static_cast<bool>(last); });
  EXPECT_TRUE(hand) << address << ": " << hand.failure().text;
  if (!hand) return nullptr;
  test::BePatient(**hand);
  return *std::move(hand);
}

FindResult FindOnCan() {
  FindOptions options;
  options.links = {LinkKind::SOCKET_CAN};
  return FindHands(options);
}

std::vector<std::string> Addresses(const FindResult& found) {
  std::vector<std::string> addresses;
  for (const FoundHand& hand : found.hands) addresses.push_back(hand.address.ToString());
  return addresses;
}

struct Trouble {
  const char* address;
  FailureKind kind;
  int system_error;
  const char* text;
  const char* advice;
};

const Trouble kTroubles[] = {
    {"nosuch0", FailureKind::NO_LINK, ENODEV, "nosuch0", "ip link add dev nosuch0 type vcan"},
    {"lo", FailureKind::NO_LINK, ENODEV, "lo is no CAN interface", "ip link"},
    {"kv_down", FailureKind::NO_LINK, ENETDOWN, "kv_down: the interface is down", "up"},
    {"kv_classic:3", FailureKind::NO_LINK, 0, "kv_classic: the interface carries no CAN FD frames",
     "mtu 72"},
    {"kv_full", FailureKind::SEND_FAILED, ENOBUFS, "kv_full: the link takes no frames",
     "nobody acknowledges"},
    {"kv_full:3", FailureKind::SEND_FAILED, ENOBUFS, "kv_full: [CANID:0001", "nobody acknowledges"},
    {"kv_silent", FailureKind::NO_REPLY, 0, "kv_silent: no hand answers", "powered"},
    {"kv_silent:tessel:7", FailureKind::NO_REPLY, 0, "kv_silent: no hand with id 7 answers",
     "powered"},
};

TEST_F(OpenHandOnTheKernel, WhatCannotBeAskedIsToldWithItsReason) {
  const Interface down("kv_down");
  down.Down();
  const Interface classic("kv_classic", 16);
  const Interface full("kv_full");
  // A queue that nothing leaves, as where nobody on the bus acknowledges.
  Shell("tc qdisc add dev kv_full root tbf rate 8bit burst 80 limit 500");
  const Interface silent("kv_silent");
  for (const Trouble& trouble : kTroubles) {
    SCOPED_TRACE(trouble.address);
    const Failure failure = FailureToOpen(trouble.address);
    EXPECT_STREQ(ToString(failure.kind), ToString(trouble.kind));
    EXPECT_EQ(failure.system_error, trouble.system_error);
    EXPECT_THAT(failure.text, HasSubstr(trouble.text));
    EXPECT_THAT(AdviceOn(failure), HasSubstr(trouble.advice));
  }

  SimulatorProcess simulator({"--can", TestInterface(), "--hand", "vanta:127"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto found = Repeat(&FindOnCan, [](const auto& last) { return !last.hands.empty(); });
  EXPECT_THAT(Addresses(found), testing::ElementsAre(TestInterface() + ":vanta:127"));
  std::vector<std::string> told;
  for (const Failure& failure : found.not_asked) {
    told.push_back(failure.text.substr(0, failure.text.find(':')) + ' ' + ToString(failure.kind) +
                   ' ' + std::to_string(failure.system_error));
  }
  EXPECT_THAT(told, testing::UnorderedElementsAre(
                        "kv_down NO_LINK " + std::to_string(ENETDOWN), "kv_classic NO_LINK 0",
                        "kv_full SEND_FAILED " + std::to_string(ENOBUFS)));
}

TEST_F(OpenHandOnTheKernel, SeveralHandsAreToldApart) {
  const Interface second("kv_second");
  SimulatorProcess simulator({"--can", TestInterface(), "--can", "kv_second", "--hand",
                              "brisa:1@" + TestInterface(), "--hand", "tessel:2@" + TestInterface(),
                              "--hand", "brisa:9@kv_second", "--hand", "brisa:10@kv_second"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const std::string bus = TestInterface();
  for (const Receiving how : {Receiving::AS_EVER, Receiving::BY_EVENTS}) {
    SetDefaultReceiving(how);
    ExpectFailure(bus, FailureKind::REFUSED,
                  "several hands answer: brisa with id 1, tessel with id 2; name one, such as " +
                      bus + ":brisa:1");
    ExpectFailure("kv_second:brisa", FailureKind::REFUSED, "brisa with id 9, brisa with id 10");
    ExpectFailure(bus + ":brisa:2", FailureKind::REFUSED, "what answers is: tessel with id 2");
    const auto brisa = Open(bus + ":1");
    const auto tessel = Open(bus + ":tessel");
    SetDefaultReceiving(Receiving::AS_EVER);
    ASSERT_TRUE(brisa && tessel);
    EXPECT_NE(dynamic_cast<KorvaneBrisa*>(brisa.get()), nullptr);
    EXPECT_NE(dynamic_cast<KorvaneTessel*>(tessel.get()), nullptr);
    EXPECT_EQ(tessel->SetJointMotorPosi(1, 77), 77);
    EXPECT_EQ(*IdentifyHand(*brisa), Model::BRISA);
    brisa->device_id = 2;
    EXPECT_EQ(*IdentifyHand(*brisa), Model::TESSEL) << "whatever the object is";
  }
  const auto found = Repeat(&FindOnCan, [](const auto& last) { return last.hands.size() == 4; });
  EXPECT_THAT(Addresses(found), testing::ElementsAre(bus + ":brisa:1", bus + ":tessel:2",
                                                     "kv_second:brisa:9", "kv_second:brisa:10"));
}

TEST_F(OpenHandOnTheKernel, AHandThatWorksIsNotDisturbedByAFinder) {
  SimulatorProcess simulator({"--can", TestInterface(), "--hand", "brisa:1", "--hand", "quill:2"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto hand = Open(TestInterface() + ":brisa");
  ASSERT_TRUE(hand);
  SetReceiving(*hand, Receiving::BY_EVENTS);
  std::atomic<bool> over{false};
  std::thread finder([&over] {
    const auto found = Repeat(&FindOnCan, [](const auto& last) { return last.hands.size() == 2; });
    EXPECT_EQ(found.hands.size(), 2U);
    over = true;
  });
  for (short i = 0; !over; i = static_cast<short>((i + 1) % 4096)) {
    EXPECT_EQ(hand->SetJointMotorPosi(3, i), i);
  }
  finder.join();
}

TEST_F(OpenHandOnTheKernel, AHandThatVanishesIsMissedAndTakenUpAgain) {
  const std::vector<std::string> arguments{"--can", TestInterface(), "--hand", "lumen:4"};
  SimulatorProcess simulator(arguments);
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto hand = Open(TestInterface());
  ASSERT_TRUE(hand);
  simulator.End(SIGKILL);
  hand->SetFrameRecvTimeout(10);
  const auto read = [](auto& h) { return h.GetJointMotorPosi(1); };
  EXPECT_EQ(Checked(*hand, read).failure().kind, FailureKind::NO_REPLY);
  EXPECT_EQ(IdentifyHand(*hand).failure().kind, FailureKind::NO_REPLY);
  EXPECT_FALSE(StatisticsOf(*hand).link_lost) << "the interface is there";
  const FindResult found = FindOnCan();
  EXPECT_TRUE(found.hands.empty());
  EXPECT_TRUE(found.not_asked.empty()) << found.not_asked[0].text;
  test::BePatient(*hand);
  SimulatorProcess again(arguments);
  ASSERT_TRUE(again.AwaitReady()) << again.Said();
  EXPECT_TRUE(Checked(*hand, read));
  EXPECT_EQ(*IdentifyHand(*hand), Model::LUMEN);
}

/// A device that looks at what is asked, and does something once at the first frame that fits.
class Bystander {
 public:
  Bystander(std::string interface, std::uint32_t id, std::function<void(RawSocket&)> act)
      : interface_(std::move(interface)), id_(id), socket_(interface_), act_(std::move(act)) {
    thread_ = std::thread([this] { Watch(); });
  }
  ~Bystander() {
    // Whoever was to ask may have given up before; the thread ends all the same.
    if (!seen_) RawSocket(interface_).Send(id_ | CAN_EFF_FLAG, 64, 0);
    thread_.join();
  }
  Bystander(const Bystander&) = delete;
  Bystander& operator=(const Bystander&) = delete;

 private:
  void Watch() {
    while ((socket_.Receive().can_id & kCanIdMask) != id_) {
    }
    seen_ = true;
    act_(socket_);
  }

  std::string interface_;
  std::uint32_t id_;
  RawSocket socket_;
  std::function<void(RawSocket&)> act_;
  std::atomic<bool> seen_{false};
  std::thread thread_;
};

constexpr std::uint32_t kBrisas = 0x100;
constexpr std::uint32_t kDeviceQuery = FunctionField(function_code::kDeviceRecord) | kBrisas | 0x09;
constexpr std::uint32_t kVendorQuery = FunctionField(function_code::kVendorRecord) | kBrisas | 0x09;

/// What the kernel says of an interface that was unregistered, first and later.
const auto kGone = AnyOf(ENODEV, ENXIO);

/// What `ask` gives while the interface kv_gone is deleted at the first frame `id`. Once more if
/// the deletion took longer than whoever asks waits.
template <class Ask, class Expected>
auto AskWhileItIsDeleted(std::uint32_t id, const Ask& ask, const Expected& expected) {
  const auto once = [&] {
    Interface interface("kv_gone");
    const Bystander deletes("kv_gone", id, [&](RawSocket&) { interface.Delete(); });
    return ask();
  };
  return Repeat(once, expected);
}

bool IsUnsent(const Failure& failure) { return failure.kind == FailureKind::SEND_FAILED; }

TEST_F(OpenHandOnTheKernel, AnInterfaceThatIsDeletedWhileItIsAskedIsToldOf) {
  for (const bool with_id : {false, true}) {
    SCOPED_TRACE(with_id);
    const auto open = [&] { return FailureToOpen(with_id ? "kv_gone:9" : "kv_gone"); };
    const auto failure =
        AskWhileItIsDeleted(with_id ? kVendorQuery : kDeviceQuery, open, &IsUnsent);
    EXPECT_STREQ(ToString(failure.kind), "SEND_FAILED");
    EXPECT_THAT(failure.system_error, kGone);
    EXPECT_THAT(failure.text, HasSubstr("kv_gone: "));
    EXPECT_THAT(AdviceOn(failure), HasSubstr("the interface is gone"));
  }
}

TEST_F(OpenHandOnTheKernel, AnInterfaceThatIsDeletedUnderAHandIsToldOf) {
  Interface interface("kv_gone");
  SimulatorProcess simulator({"--can", "kv_gone", "--hand", "brisa:1"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto hand = Open("kv_gone");
  ASSERT_TRUE(hand);
  interface.Delete();
  const auto model = IdentifyHand(*hand);
  EXPECT_STREQ(ToString(model.failure().kind), "SEND_FAILED");
  EXPECT_THAT(model.failure().system_error, kGone);
  EXPECT_TRUE(StatisticsOf(*hand).link_lost);
  EXPECT_EQ(FailureToOpen("kv_gone").system_error, ENODEV);
}

/// Neither a hand nor a stranger: its bus or its power went in between.
TEST_F(OpenHandOnTheKernel, AHandThatGoesAfterItsFirstAnswerIsToldAsOneThatWent) {
  constexpr const char* kWent = "the hand with id 9 told its id and then no more";
  const auto answer = [](RawSocket& socket) { socket.Send(kDeviceQuery | CAN_EFF_FLAG, 64, 9); };
  const auto open = [&] {
    const Bystander answers_once(TestInterface(), kDeviceQuery, answer);
    return FailureToOpen(TestInterface());
  };
  const auto says = [&](const Failure& last) { return last.text.find(kWent) != std::string::npos; };
  const Failure failure = Repeat(open, says);
  EXPECT_STREQ(ToString(failure.kind), "NO_REPLY");
  EXPECT_THAT(failure.text, HasSubstr(kWent));
}

}  // namespace
}  // namespace talvera::korvane
