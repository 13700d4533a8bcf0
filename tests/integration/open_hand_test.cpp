// Hands by their addresses, on adapters inside the process and on a pseudo-terminal: which one
// answers, which class it becomes, and what is said where it isn't the one that was meant.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>

#include "can/zlg_usbcanfd_device.h"
#include "factories/bus_probe.h"
#include "factories/known_models.h"
#include "factories/serial_probe.h"
#include "korvane_brisa.h"
#include "korvane_lumen.h"
#include "korvane_open.h"
#include "korvane_open_service.h"
#include "korvane_quill.h"
#include "korvane_sim/in_process_adapters.h"
#include "korvane_sim/serial_hand.h"
#include "korvane_tessel.h"
#include "korvane_vanta.h"
#include "private_korvane_lumen.h"
#include "support/bus_device.h"
#include "support/capture.h"
#include "support/patient_link.h"

namespace talvera::korvane {
namespace {

using testing::HasSubstr;

template <class Hand>
bool Is(const KorvaneBase& hand) {
  return dynamic_cast<const Hand*>(&hand) != nullptr;
}

struct TestedModel {
  Model model;
  const sim::ModelRow* row;
  bool (*is)(const KorvaneBase& hand);
};

const TestedModel kTestedModels[] = {{Model::BRISA, &sim::kBrisa, &Is<KorvaneBrisa>},
                                     {Model::TESSEL, &sim::kTessel, &Is<KorvaneTessel>},
                                     {Model::QUILL, &sim::kQuill, &Is<KorvaneQuill>},
                                     {Model::LUMEN, &sim::kLumen, &Is<KorvaneLumen>},
                                     {Model::VANTA, &sim::kVanta, &Is<KorvaneVanta>}};

sim::SimulatedHand Stranger(std::uint8_t id, std::uint8_t active_dof, const char* product_model) {
  sim::SimulatedHand hand(sim::kBrisa, id);
  hand.GetIdentity().active_dof = active_dof;
  hand.GetIdentity().product_model = product_model;
  return hand;
}

/// `open` once a hand answers.
template <class Open>
auto OpenPatiently(const Open& open) {
  return test::Repeat(
      open, [](const auto& opened) { return opened.failure().kind != FailureKind::NO_REPLY; });
}

std::unique_ptr<KorvaneBase> Opened(const std::string& address) {
  return *OpenPatiently([&] { return OpenHand(address); });
}

/// What is found once that many hands have answered.
FindResult FindAll(const FindOptions& options, std::size_t hands) {
  return test::Repeat([&] { return FindHands(options); },
                      [&](const FindResult& found) { return found.hands.size() >= hands; });
}

/// The kind and the text of a failure of `open`. The hands that a text tells of are told only if
/// they answer in time.
template <class Open>
void ExpectFailureOf(const char* operation, const Open& open, FailureKind kind,
                     const std::string& text) {
  const auto hand = test::Repeat(open, [&](const auto& opened) {
    return opened || opened.failure().text.find(text) != std::string::npos;
  });
  ASSERT_FALSE(hand);
  EXPECT_STREQ(ToString(hand.failure().kind), ToString(kind));
  EXPECT_EQ(hand.failure().operation, operation);
  EXPECT_THAT(hand.failure().text, HasSubstr(text));
}

void ExpectFailure(const std::string& address, FailureKind kind, const std::string& text) {
  SCOPED_TRACE(address);
  ExpectFailureOf(
      "OpenHand", [&] { return OpenHand(address); }, kind, text);
}

/// No model answers, and LastFailure tells why as for any other operation.
void ExpectUnknown(const Korvane& hand, FailureKind why) {
  const Failure failure = IdentifyHand(hand).failure();
  EXPECT_STREQ(ToString(failure.kind), ToString(why));
  EXPECT_STREQ(ToString(LastFailure(hand).kind), ToString(why));
  EXPECT_EQ(LastFailure(hand).text, failure.text);
  EXPECT_EQ(LastFailure(hand).operation, "IdentifyHand");
}

void ExpectOpens(const std::string& address, const TestedModel& expected, std::uint8_t id,
                 bool mirrored = false) {
  SCOPED_TRACE(address);
  const auto hand = OpenPatiently([&] { return OpenHand(address); });
  ASSERT_TRUE(hand) << hand.failure().text;
  const KorvaneBase& opened = **hand;
  EXPECT_TRUE(expected.is(opened));
  EXPECT_EQ(opened.device_id, id);
  EXPECT_EQ(opened.mirrored, mirrored);
  EXPECT_TRUE(opened.connected);
  EXPECT_EQ(opened.GetFrameRecvTimeout(), 50) << "as from a factory";
  EXPECT_EQ(LastFailure(opened).kind, FailureKind::NONE);
  test::BePatient(**hand);
  // On a serial port a late answer to an earlier request may come first.
  const auto joints = test::Repeat([&] { return opened.GetVendorInfo().active_dof; },
                                   [](std::uint8_t count) { return count != 0; });
  EXPECT_EQ(joints, expected.row->motors);
  EXPECT_FALSE(opened.GetAllJointMotorPosi().empty());
}

/// Over both kinds of adapters, whose lines are of no interest here.
class OnAdapters : public testing::TestWithParam<const char*> {
 protected:
  std::string At(const std::string& rest) const { return GetParam() + (":" + rest); }

  const test::StreamCapture out_{stdout};
  sim::InProcessAdapters adapters_{{2, 2}};
};

INSTANTIATE_TEST_SUITE_P(Both, OnAdapters, testing::Values("zlg", "hcan"),
                         [](const auto& tested) { return std::string(tested.param); });

TEST_P(OnAdapters, EveryModelOpensAsItselfWhateverTheAddressLeavesOut) {
  for (const TestedModel& tested : kTestedModels) {
    const std::string name = ToString(tested.model);
    auto& bus = adapters_.Bus(0, 1);
    const std::size_t number = bus.Add({*tested.row, 0x21});
    ExpectOpens(At("0.1"), tested, 0x21);
    ExpectOpens(At("0.1:33"), tested, 0x21);
    ExpectOpens(At("0.1:" + name + ":33?side=left"), tested, 0x21, true);
    bus.SetPlugged(number, false);
  }
}

TEST(ModelInfo, IsWhatTheHandsAre) {
  for (const auto& [model, row, is] : kTestedModels) {
    const ModelInfo& info = InfoOf(model);
    SCOPED_TRACE(info.class_name);
    EXPECT_EQ(info.model, model);
    EXPECT_EQ(info.name, row->name);
    EXPECT_EQ(info.positions, row->motors + row->worn_joints);
    EXPECT_EQ(info.has_motors, row->motors != 0);
    EXPECT_EQ(info.position_max, row->max_position);
    EXPECT_EQ(info.gestures != 0, !JointsOf(model, HandType::RIGHT).empty());
    EXPECT_EQ(info.has_service, sim::HasServiceOnCan(*row));
    EXPECT_EQ(info.has_serial, sim::HasSerialPort(*row));
    const bool takes_periods =
        std::any_of(row->functions.begin(), row->functions.end(), [](const sim::FunctionRow& f) {
          return f.function == sim::Function::kTemperatureReport && f.write;
        });
    EXPECT_EQ(info.tells_by_reports, takes_periods);
  }
}

TEST_P(OnAdapters, FiveModelsOnOneBusAreToldApart) {
  std::uint8_t id = 0;
  for (const TestedModel& tested : kTestedModels) adapters_.Bus(1, 0).Add({*tested.row, ++id});
  const std::string serial_number = At("SIM-") + (*GetParam() == 'z' ? "ZLG" : "HCAN") + "-0001.0";
  ExpectOpens(serial_number + ":tessel", kTestedModels[1], 2);
  ExpectOpens(serial_number + ":quill", kTestedModels[2], 3);
  ExpectFailure(At("1.0"), FailureKind::REFUSED,
                "several hands answer: brisa with id 1, tessel with id 2, quill with id 3, lumen "
                "with id 4, vanta with id 5; name one, such as " +
                    At("1.0:brisa:1"));
  ExpectFailure(At("1.0:tessel:1"), FailureKind::REFUSED,
                "no tessel with id 1; what answers is: brisa with id 1");
  ExpectFailure(At("1.0:brisa:3"), FailureKind::REFUSED, "what answers is: quill with id 3");
  ExpectFailure(At("1.0:quill:6"), FailureKind::NO_REPLY, "1.0: no hand with id 6 answers");
}

TEST_P(OnAdapters, WhatCannotBeMeantIsRefusedWithItsReason) {
  adapters_.Bus(0, 0).Add({sim::kBrisa, 7});
  adapters_.Bus(0, 0).Add({sim::kBrisa, 9});
  adapters_.Bus(1, 0).Add({sim::kQuill, 7});
  adapters_.Bus(1, 0).Add({sim::kLumen, 7});
  adapters_.Bus(1, 1).Add(Stranger(5, 99, "Toaster"));
  ExpectFailure(At("0.0:brisa"), FailureKind::REFUSED, "brisa with id 7, brisa with id 9");
  ExpectFailure(At("0.0:vanta"), FailureKind::REFUSED,
                "no vanta; what answers is: brisa with id 7");
  ExpectFailure(At("1.0:7"), FailureKind::REFUSED, "lumen with id 7, quill with id 7");
  ExpectOpens(At("1.0:quill:7"), kTestedModels[2], 7);
  ExpectFailure(At("0.1"), FailureKind::NO_REPLY, "0.1: no hand answers");
  ExpectFailure(At("1.1"), FailureKind::BAD_REPLY, "\"Toaster\" with 99 active degrees of freedom");
  ExpectFailure(At("5.0"), FailureKind::NO_LINK, "5.0: [");
  ExpectFailure(At("nothing.0"), FailureKind::NO_LINK,
                "Device with serial number \"nothing\" not found!");
  ExpectFailure(At("0.0:brisa:200"), FailureKind::BAD_ARGUMENT, "\"200\" is no id");
  HandAddress impossible;
  EXPECT_EQ(OpenHand(impossible).failure().kind, FailureKind::BAD_ARGUMENT);
}

/// A hand that answers later than it was first asked for is there all the same.
TEST_P(OnAdapters, AnAdapterThatWasAskedInVainOpensAgain) {
  ExpectFailure(At("0.0"), FailureKind::NO_REPLY, "no hand answers");
  if (*GetParam() == 'z') {
    EXPECT_FALSE(CanfdDevices().canfd_device_info_cache[0].opened) << "it would be found shut";
  }
  adapters_.Bus(0, 0).Add({sim::kVanta, 1});
  ExpectOpens(At("0.0"), kTestedModels[4], 1);
  ExpectOpens(At("0.0"), kTestedModels[4], 1);
}

TEST_P(OnAdapters, HandsThatShareAnIdAreNotTakenForOne) {
  auto& bus = adapters_.Bus(0, 0);
  bus.Add({sim::kBrisa, 1});
  sim::SimulatedHand twin(sim::kBrisa, 1);
  twin.GetIdentity().serial_number = "TWIN";
  const std::size_t number = bus.Add(std::move(twin));
  // On a machine that is busy the answer of the second one may once come too late.
  const auto is_noticed = [](const std::function<std::string()>& told) {
    const auto names_both = [](const std::string& text) {
      return text.find("several hands have the id 1, with the serial numbers") != std::string::npos;
    };
    return names_both(test::Repeat(told, names_both));
  };
  for (const char* const address : {"0.0", "0.0:1", "0.0:brisa:1"}) {
    EXPECT_TRUE(is_noticed([&] { return OpenHand(At(address)).failure().text; })) << address;
  }
  EXPECT_TRUE(is_noticed([&] { return OpenServiceHand(At("0.0:brisa:1")).failure().text; }));
  FindOptions options;
  options.places = {*HandAddress::Parse(At("0.0"))};
  EXPECT_TRUE(is_noticed([&] {
    const FindResult found = FindHands(options);
    return found.hands.empty() ? found.not_asked.front().text : "";
  }));
  bus.SetPlugged(number, false);
  ExpectOpens(At("0.0:brisa:1"), kTestedModels[0], 1);
}

TEST_P(OnAdapters, AHandIsIdentifiedByWhoAnswersUnderItsId) {
  std::uint8_t id = 0;
  for (const TestedModel& tested : kTestedModels) adapters_.Bus(0, 0).Add({*tested.row, ++id});
  adapters_.Bus(0, 0).Add(Stranger(11, 99, "?"));
  adapters_.Bus(0, 0).Add(Stranger(12, 12, "KorvaneBrisa"));
  adapters_.Bus(0, 0).Add(Stranger(13, 10, "Prototype"));
  for (const bool as_quill : {false, true}) {
    const auto hand = Opened(At(as_quill ? "0.0:quill:3" : "0.0:vanta:5"));
    hand->SetFrameRecvTimeout(200);
    for (id = 1; id <= 5; ++id) {
      hand->device_id = id;
      const auto model = IdentifyHand(*hand);
      ASSERT_TRUE(model) << model.failure().text;
      EXPECT_EQ(*model, kTestedModels[id - 1].model);
    }
    hand->device_id = 13;
    EXPECT_EQ(*IdentifyHand(*hand), Model::BRISA) << "by its joints, where its name says nothing";
    for (const std::uint8_t stranger : {std::uint8_t{11}, std::uint8_t{12}}) {
      hand->device_id = stranger;
      ExpectUnknown(*hand, FailureKind::BAD_REPLY);
    }
    hand->device_id = 99;
    hand->SetFrameRecvTimeout(10);
    ExpectUnknown(*hand, FailureKind::NO_REPLY);
  }
  const auto service = PrivateKorvaneLumen::createHandByZlgcan(HandType::LEFT, 4, 1);
  adapters_.Bus(1, 0).Add({sim::kLumen, 4});
  test::BePatient(*service);
  EXPECT_EQ(*IdentifyHand(*service), Model::LUMEN) << "whatever the service interface calls it";
  const auto missing = KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, 7);
  ExpectUnknown(*missing, FailureKind::NO_LINK);
}

/// The service interface at an address opens as that model and can be used.
void ExpectServiceOpens(const std::string& address, Model model, std::uint8_t id) {
  SCOPED_TRACE(address);
  const auto hand = OpenPatiently([&] { return OpenServiceHand(address); });
  ASSERT_TRUE(hand) << hand.failure().text;
  EXPECT_EQ(hand->address.model, model);
  EXPECT_EQ(hand->address.id, id);
  test::BePatient(*hand->hand);
  test::BePatient(hand->Public());
  EXPECT_FALSE(hand->Service().GetAxisLimitPos().lower.empty());
  EXPECT_FALSE(hand->Public().GetAllJointMotorPosi().empty());
}

TEST_P(OnAdapters, TheServiceInterfaceOpensOnceOneHandAloneTakesItsRequests) {
  const auto expect_failure = [&](const std::string& rest, FailureKind kind, const char* text) {
    SCOPED_TRACE(rest);
    ExpectFailureOf(
        "OpenServiceHand", [&] { return OpenServiceHand(At(rest)); }, kind, text);
  };
  auto& bus = adapters_.Bus(0, 0);
  bus.Add({sim::kTessel, 2});
  const std::size_t brisa = bus.Add({sim::kBrisa, 1});
  ExpectServiceOpens(At("0.0:brisa"), Model::BRISA, 1);
  ExpectServiceOpens(At("0.0:1"), Model::BRISA, 1);
  expect_failure("0.0:tessel", FailureKind::NOT_SUPPORTED, "a tessel has no service interface");
  expect_failure("0.0:lumen:1", FailureKind::REFUSED, "what answers is: brisa with id 1");
  expect_failure("0.0:9", FailureKind::NO_REPLY, "no hand with id 9 answers");
  expect_failure("0.0:brisa:300", FailureKind::BAD_ARGUMENT, "no id");
  bus.Add({sim::kLumen, 4});
  expect_failure("0.0:brisa:1", FailureKind::REFUSED, "leave only one on the bus");
  bus.SetPlugged(brisa, false);
  ExpectServiceOpens(At("0.0:lumen"), Model::LUMEN, 4);
}

TEST_P(OnAdapters, EveryHandOnEveryChannelIsFoundAndCanBeOpened) {
  CanfdDevices().canfd_device_info_cache.clear();  // As before anybody used an adapter
  adapters_.Bus(0, 1).Add({sim::kQuill, 127});
  adapters_.Bus(0, 1).Add({sim::kTessel, 1});
  adapters_.Bus(1, 0).Add({sim::kBrisa, 64});
  adapters_.Bus(1, 1).Add(Stranger(5, 99, "Toaster"));
  FindOptions options;
  options.links = {*GetParam() == 'z' ? LinkKind::ZLG : LinkKind::HCAN};
  const test::StreamCapture err(stderr);
  const FindResult found = FindAll(options, 3);
  EXPECT_EQ(err.Text(), "") << "silent ids and answers are no faults";
  std::vector<std::string> addresses;
  for (const FoundHand& hand : found.hands) addresses.push_back(hand.address.ToString());
  const std::vector<std::string> expected{At("0.1:tessel:1"), At("0.1:quill:127"),
                                          At("1.0:brisa:64")};
  ASSERT_EQ(addresses, expected);
  EXPECT_EQ(found.hands[1].model, Model::QUILL);
  EXPECT_EQ(found.hands[1].id, 127);
  EXPECT_EQ(PlainText(found.hands[2].vendor.product_model), "KorvaneBrisa");
  EXPECT_EQ(found.hands[2].vendor.serial_number, "SIM00000000064");
  ASSERT_EQ(found.not_asked.size(), 1U);
  EXPECT_EQ(found.not_asked[0].kind, FailureKind::BAD_REPLY);
  EXPECT_THAT(found.not_asked[0].text, HasSubstr(At("1.1: what answers with id 5 is none")));
  for (const FoundHand& hand : found.hands) EXPECT_TRUE(Opened(hand.address.ToString()));
}

TEST_P(OnAdapters, PlacesThatOverlapAreAskedOnce) {
  const auto asked = [this](const std::vector<std::string>& places) {
    FindOptions options;
    for (const auto& place : places) options.places.push_back(*HandAddress::Parse(At(place)));
    options.ids = {3, 4};
    options.answer_time = std::chrono::milliseconds(1);
    const auto before = adapters_.Bus(0, 0).Statistics().from_hosts;
    FindHands(options);
    return adapters_.Bus(0, 0).Statistics().from_hosts - before;
  };
  const auto one_id = asked({"0.0:3"});
  EXPECT_GT(one_id, 0U);
  EXPECT_EQ(asked({"0.0:3", "0.0:tessel:3"}), one_id);
  EXPECT_EQ(asked({"0.0:3", "0.1", "0.0", "0.0:4?side=left", "0.0"}), 2 * one_id);
  EXPECT_EQ(asked({"0.0:9", "0.0"}), 3 * one_id);
  adapters_.Bus(0, 0).Add({sim::kLumen, 3});
  adapters_.Bus(0, 0).Add({sim::kVanta, 4});
  FindOptions options;
  for (const char* place : {"0.0", "0.0:4?side=left"}) {
    options.places.push_back(*HandAddress::Parse(At(place)));
  }
  const FindResult found = FindAll(options, 2);
  ASSERT_EQ(found.hands.size(), 2U);
  EXPECT_EQ(found.hands[0].address.ToString(), At("0.0:lumen:3"));
  EXPECT_EQ(found.hands[1].address.ToString(), At("0.0:vanta:4?side=left"));
}

TEST_P(OnAdapters, AHandOfThisProcessIsNotDisturbed) {
  adapters_.Bus(0, 0).Add({sim::kLumen, 3});
  adapters_.Bus(1, 0).Add({sim::kLumen, 4});
  const auto hand = Opened(At("0.0:lumen:3"));
  test::BePatient(*hand);
  FindOptions options;
  options.links = {*GetParam() == 'z' ? LinkKind::ZLG : LinkKind::HCAN};
  options.ids = {3, 4};
  const FindResult found = FindAll(options, 1);
  ASSERT_EQ(found.hands.size(), 1U);
  EXPECT_EQ(found.hands[0].address.ToString(), At("1.0:lumen:4"));
  ASSERT_EQ(found.not_asked.size(), 2U);
  EXPECT_EQ(found.not_asked[0].text, At("0.0: this process has hands on the adapter"));
  EXPECT_EQ(hand->SetJointMotorPosi(1, 77), 77);
}

/// Its channel would be stopped on a ZLG adapter, however the place names it; on an HCAN one the
/// hand goes on.
TEST_P(OnAdapters, AHandOfThisProcessIsNotDisturbedWhereItsPlaceIsNamed) {
  const bool is_zlg = *GetParam() == 'z';
  adapters_.Bus(0, 0).Add({sim::kBrisa, 3});
  const auto hand = Opened(At("0.0:brisa:3"));
  test::BePatient(*hand);
  for (const std::string place : {"0.0", "0.0:3", is_zlg ? "SIM-ZLG-0000.0" : "SIM-HCAN-0000.0"}) {
    SCOPED_TRACE(place);
    FindOptions options;
    options.places = {*HandAddress::Parse(At(place))};
    const FindResult found = FindAll(options, is_zlg ? 0 : 1);
    EXPECT_EQ(found.hands.size(), is_zlg ? 0 : 1);
    EXPECT_EQ(found.not_asked.size(), is_zlg ? 1 : 0);
    for (const Failure& failure : found.not_asked) {
      EXPECT_THAT(failure.text, HasSubstr(".0: this process has hands on the adapter"));
    }
    EXPECT_EQ(hand->SetJointMotorPosi(1, 77), 77);
  }
  if (is_zlg) {  // nobody can look there who else would take the requests
    ExpectFailureOf(
        "OpenServiceHand", [&] { return OpenServiceHand(At("0.0:brisa:3")); }, FailureKind::NO_LINK,
        "this process has hands on the adapter");
  } else {
    ExpectServiceOpens(At("0.0:brisa:3"), Model::BRISA, 3);
  }
  EXPECT_EQ(hand->SetJointMotorPosi(1, 78), 78);
}

/// Their queries look like answers to each other: on one interface every program hears all others.
TEST(OnSocketCan, TwoFindersAreNotTakenForHands) {
  sim::VirtualBus bus;
  bus.Add({sim::kTessel, 2});
  bus.Add({sim::kQuill, 126});
  const auto ask = [&bus] {
    test::BusDevice device(bus);
    std::string text;
    for (const BusHand& hand : AskBus(device, EveryId(), std::chrono::milliseconds(200)).hands) {
      text += std::to_string(hand.id) + ' ' + PlainText(hand.vendor.product_model) + ' ';
    }
    return text;
  };
  auto other = std::async(std::launch::async, ask);
  EXPECT_EQ(ask(), "2 KorvaneTessel 126 KorvaneQuill ");
  EXPECT_EQ(other.get(), "2 KorvaneTessel 126 KorvaneQuill ");
}

TEST(OnSocketCan, AnInterfaceThatIsNotThereIsNoLink) {
  const auto hand = OpenHand("nosuch0:brisa:1");
  ASSERT_FALSE(hand);
  EXPECT_EQ(hand.failure().kind, FailureKind::NO_LINK);
  EXPECT_NE(hand.failure().system_error, 0);
  EXPECT_NE(AdviceOn(hand.failure()), "");
}

class OnASerialPort : public testing::Test {
 protected:
  void Plug(const sim::ModelRow& row, std::uint8_t id) {
    device_ = std::make_unique<sim::SerialHand>(sim::SimulatedHand(row, id), "");
  }
  std::string At(const std::string& rest) const {
    return "serial:" + device_->Path() + "@115200" + rest;
  }

  const test::StreamCapture out_{stdout};
  std::unique_ptr<sim::SerialHand> device_;
};

TEST_F(OnASerialPort, ABrisaOpensWhateverTheAddressLeavesOut) {
  Plug(sim::kBrisa, 0x21);
  ExpectOpens(At(""), kTestedModels[0], 0x21);
  ExpectOpens(At(":33?side=left"), kTestedModels[0], 0x21, true);
  Plug(sim::kBrisa, 127);
  ExpectOpens(At(""), kTestedModels[0], 127);
  const auto hand = Opened("serial:" + device_->Path() + ":Brisa");
  test::BePatient(*hand);
  EXPECT_EQ(*IdentifyHand(*hand), Model::BRISA);
  EXPECT_EQ(hand->SetJointMotorPosi(3, 12), 0);
  EXPECT_EQ(OpenServiceHand(At("")).failure().kind, FailureKind::NO_LINK) << "the port is taken";
}

TEST_F(OnASerialPort, OneObjectSpeaksBothProtocols) {
  Plug(sim::kBrisa, 2);
  ExpectServiceOpens(At(""), Model::BRISA, 2);
  ExpectServiceOpens(At(":brisa:2"), Model::BRISA, 2);
}

TEST_F(OnASerialPort, WhatCannotBeMeantIsRefusedWithItsReason) {
  Plug(sim::kBrisa, 2);
  ExpectFailure(At(":brisa:3"), FailureKind::NO_REPLY,
                "no hand with id 3 answers; the one that is there has the id 2");
  ExpectFailure(At(":tessel"), FailureKind::NOT_SUPPORTED, "only a brisa is");
  sim::SerialFaults silent;
  silent.loss = 1.0;
  device_->SetFaults(silent);
  ExpectFailure(At(""), FailureKind::NO_REPLY, "no hand answers");
  Plug(sim::kTessel, 2);
  ExpectFailure(At(""), FailureKind::REFUSED, "no brisa; what answers is: tessel with id 2");
  ExpectFailure("serial:/no/such/port", FailureKind::NO_LINK, "/no/such/port");
  EXPECT_EQ(OpenHand("serial:/no/such/port").failure().system_error, ENOENT);
  ExpectFailure("serial:/etc/hostname", FailureKind::NO_LINK, "/etc/hostname");
}

TEST_F(OnASerialPort, AHandIsFoundWhereItsPortIsNamed) {
  Plug(sim::kBrisa, 5);
  FindOptions options;
  options.links = {LinkKind::SOCKET_CAN};
  options.serial_ports = {device_->Path(), "/no/such/port"};
  const FindResult found = FindAll(options, 1);
  ASSERT_EQ(found.hands.size(), 1U);
  EXPECT_EQ(found.hands[0].address.ToString(), At(":brisa:5"));
  EXPECT_EQ(found.hands[0].vendor.product_model, "BR7");
  ASSERT_FALSE(found.not_asked.empty());
  EXPECT_EQ(found.not_asked.back().system_error, ENOENT);
}

TEST_F(OnASerialPort, APortWithTwoNamesIsAskedOnce) {
  Plug(sim::kBrisa, 5);
  namespace fs = std::filesystem;
  std::string folder = (fs::temp_directory_path() / "korvane-port-XXXXXX").string();
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const std::string name = folder + "/hand";
  fs::create_symlink(device_->Path(), name);
  FindOptions ports;
  ports.links = {LinkKind::SOCKET_CAN};
  ports.serial_ports = {device_->Path(), name};
  FindOptions places;
  places.places = {*HandAddress::Parse(At("")), *HandAddress::Parse("serial:" + name)};
  for (const FindOptions& options : {ports, places}) {
    const FindResult found = FindAll(options, 1);
    ASSERT_EQ(found.hands.size(), 1U);
    EXPECT_EQ(found.hands[0].address.ToString(), At(":brisa:5"));
  }
  fs::remove_all(folder);
}

TEST(UsbSerialPorts, AreListedOnceAndByTheNameThatLasts) {
  namespace fs = std::filesystem;
  std::string folder = (fs::temp_directory_path() / "korvane-dev-XXXXXX").string();
  ASSERT_NE(mkdtemp(folder.data()), nullptr);
  const fs::path dev(folder);
  EXPECT_EQ(UsbSerialPorts(dev), std::vector<std::string>());
  for (const char* name : {"ttyUSB1", "ttyUSB0", "ttyACM0", "ttyS0", "ttyAMA0"}) {
    std::ofstream(dev / name);
  }
  fs::create_directories(dev / "serial" / "by-id");
  fs::create_symlink("../../ttyUSB1", dev / "serial" / "by-id" / "usb-Hand-if00");
  fs::create_symlink("../../ttyUSB7", dev / "serial" / "by-id" / "usb-Gone-if00");
  const std::vector<std::string> expected{dev / "serial/by-id/usb-Hand-if00", dev / "ttyUSB0",
                                          dev / "ttyACM0"};
  EXPECT_EQ(UsbSerialPorts(dev), expected);
  fs::remove_all(dev);
}

}  // namespace
}  // namespace talvera::korvane
