// The firmware update of every model against a simulated hand that checks every packet. All waits
// pass in virtual time, and nothing depends on the machine. What each model reports, requests and
// writes in each kind of run is settled in settled_updates.txt.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <thread>

#include "korvane_open.h"
#include "support/allocation_hook.h"
#include "support/bus_device.h"
#include "support/patient_link.h"
#include "support/tested_hands.h"
#include "support/update_run.h"
#include "support/virtual_clock.h"

namespace talvera::korvane {
namespace {

using namespace std::chrono_literals;
using test::CaptureStreams;
using test::FirmwareBytes;
using test::kId;
using test::kThreePackets;
using test::ReportText;
using test::Times;
using Kind = sim::UpdateFault::Kind;
using Child = sim::UpdateChild;

constexpr std::size_t kFourPackets = 3 * 2048 + 100;
constexpr std::uint32_t kUnknownStatus = 0xFFFFFFFE;

/// What a test of one of the classes records, as it is settled.
std::string SettledLines(const std::string& test) {
  std::ifstream file(KORVANE_SETTLED_UPDATES);
  std::string lines;
  bool own = false;
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("# ", 0) == 0)
      own = line == "# " + test;
    else if (own)
      lines += line + "\n";
  }
  return lines;
}

std::string Text(const sim::UpdateFault& fault) {
  const char* const kinds[] = {"status",        "silence", "a double reply",
                               "a short reply", "a reset", "a restart first"};
  return Compose(kinds[static_cast<int>(fault.kind)], " ", fault.status, " to ",
                 static_cast<int>(fault.child), " at ", fault.at);
}

/// Refusals, and each kind of trouble at each place; the first packet may go out twice.
std::vector<sim::UpdateFault> EveryFault() {
  std::vector<sim::UpdateFault> faults{{Kind::kStatus, Child::kPacket, 5, 1}};
  const std::pair<Child, unsigned> places[] = {{Child::kUpgrade, 1}, {Child::kPacket, 1},
                                               {Child::kPacket, 2},  {Child::kPacket, 3},
                                               {Child::kFinish, 1},  {Child::kRestart, 1}};
  for (const auto& [child, at] : places) {
    for (const std::uint32_t status : {1U, 5U, kUnknownStatus}) {
      faults.push_back({Kind::kStatus, child, status, at == 1 ? 0 : at});
    }
    for (const Kind kind :
         {Kind::kLose, Kind::kShort, Kind::kReset, Kind::kRestartFirst, Kind::kDuplicate}) {
      faults.push_back({kind, child, 0, at});
    }
  }
  return faults;
}

/// The first line with that in it.
std::string LineWith(const std::string& part, const std::string& text) {
  const std::size_t at = text.find(part);
  if (at == std::string::npos) return "";
  const std::size_t begin = text.rfind('\n', at) + 1;
  return text.substr(begin, text.find('\n', at) + 1 - begin);
}

struct Model {
  const test::TestedHand& hand;
  const sim::ModelRow& row;
  void (*send_all)(KorvaneBase& hand);
  void (*send_restart)(KorvaneBase& hand);
  void (*query_result)(KorvaneBase& hand);

  // Replies of whatever device are taken, and of whatever family.
  bool any_sender = false, any_family = true;
  bool first_packet_twice = false;
};

std::ostream& operator<<(std::ostream& out, const Model& m) { return out << m.hand.class_name; }

template <class Impl>
Model ModelOf(const test::TestedHand& tested, const sim::ModelRow& row) {
  const auto send_all = [](KorvaneBase& hand) {
    dynamic_cast<Impl&>(hand).SendPackage();
    dynamic_cast<Impl&>(hand).SendFinishRequest();
    dynamic_cast<Impl&>(hand).SendRestartRequest();
  };
  const auto send_restart = [](KorvaneBase& hand) {
    dynamic_cast<Impl&>(hand).SendRestartRequest();
  };
  const auto query = [](KorvaneBase& hand) { dynamic_cast<Impl&>(hand).GetUpgradeResult(); };
  return {tested, row, send_all, send_restart, query};
}

Model Brisa() {
  auto model = ModelOf<KorvaneBrisaCanImpl>(test::kBrisa, sim::kBrisa);
  model.any_sender = true;
  return model;
}

Model Vanta() { return ModelOf<KorvaneVantaCanImpl>(test::kVanta, sim::kVanta); }

Model Tessel() {
  auto model = ModelOf<KorvaneTesselCanImpl>(test::kTessel, sim::kTessel);
  model.first_packet_twice = true;
  return model;
}

Model Lumen() { return ModelOf<KorvaneLumenCanImpl>(test::kLumen, sim::kLumen); }

Model Quill() {
  auto model = ModelOf<KorvaneQuillCanImpl>(test::kQuill, sim::kQuill);
  model.any_family = false;
  return model;
}

class HandUpdate : public testing::TestWithParam<Model> {
 protected:
  HandUpdate() {
    bus_.Add(sim::SimulatedHand(model_.row, kId));
    Firmware([](auto& firmware) { firmware.SetRestartTime(50ms); });
    UseTransport(std::make_unique<test::BusDevice>(bus_));
  }

  void UseTransport(std::unique_ptr<CanBusDeviceBase> transport) {
    hand_ = model_.hand.make(HandType::RIGHT, kId, std::move(transport));
    if (hand_->connected) test::BePatient(*hand_);
    state_ = dynamic_cast<CanUpdateState*>(hand_.get());
    state_->ota_clock = &clock_;
  }

  void Firmware(const std::function<void(sim::FirmwarePartition&)>& action) {
    bus_.WithHand(0, [&](sim::SimulatedHand& hand) { action(hand.Firmware()); });
  }

  /// From now on this goes wrong, and nothing else. The hand may be restarting, which is awaited.
  void SetFaults(const std::vector<sim::UpdateFault>& faults) {
    clock_.SleepFor(1s);
    Firmware([&](auto& firmware) {
      firmware.ClearFaults();
      for (const auto& fault : faults) firmware.AddFault(fault);
    });
  }
  void SetFault(Kind kind, Child child, std::uint32_t status = 0) {
    SetFaults({{kind, child, status}});
  }

  /// The failure of an update is the line that told it.
  void ExpectFailureAsTold() const {
    const Failure failure = LastFailure(*hand_);
    if (failure.kind == FailureKind::NONE || !model_.any_family) return;  // a Quill's tells nothing
    EXPECT_THAT(Written().err, testing::HasSubstr(failure.text + "\n"));
  }

  /// What the callback hears of an update; what is written meanwhile is in Written().
  std::string UpdateFrom(const std::string& path, bool with_callback = true) {
    while (sniffer_->Receive(0ns)) {
    }
    runner_.Run(*hand_, clock_, path, with_callback);
    if (!with_callback) ExpectFailureAsTold();
    return runner_.Outcome().reports;
  }
  std::string Update(std::size_t size = kThreePackets, bool with_callback = true) {
    return UpdateFrom(test::TemporaryFile(FirmwareBytes(size)).Path(), with_callback);
  }
  const test::Streams& UpdateSilently(std::size_t size = kThreePackets) {
    Update(size, false);
    return Written();
  }
  const test::Streams& Written() const { return runner_.Outcome().written; }
  std::chrono::nanoseconds Took() const { return runner_.Outcome().took; }

  bool Installed(std::size_t size = kThreePackets) {
    bool same = false;
    Firmware([&](auto& firmware) { same = firmware.InstalledImage() == FirmwareBytes(size); });
    return same;
  }

  std::uint32_t RequestId(std::uint32_t child, std::uint32_t id = kId) const {
    return child << 24 | 0x00F10080 | model_.hand.family | id;
  }
  std::uint32_t ReplyId(std::uint32_t child, std::uint32_t id = kId) const {
    return RequestId(child, id) ^ 0x00030080;
  }

  /// The query for the last update's result. An adapter that is gone answers it with 99.
  void RecordResult(std::uint8_t status) {
    const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
    // Only the model that listens to all knows the hand's own answer; the others take an echo.
    const std::uint32_t id = model_.any_sender ? ReplyId(5) : RequestId(5) & ~0x80U;
    const auto reply = test::FullFrame(id, {status}, 4);
    rig.device->script = [=](const CanfdFrame&) { return std::vector{reply}; };
    if (status == 99) rig.device->script = test::Throws(std::runtime_error("gone"));
    test::VirtualClock clock(1);
    auto& state = dynamic_cast<CanUpdateState&>(*rig.hand);
    state.ota_clock = &clock;
    const auto written = CaptureStreams([&] { model_.query_result(*rig.hand); });
    EXPECT_EQ(state.ota_status, status);
    const auto queries = rig.device->TakeSent();
    const std::string query = test::Show(std::vector{test::FullFrame(RequestId(5), {})});
    EXPECT_EQ(test::Show(queries), Times(queries.size(), query));
    Record(Compose("result: ", int{status}),
           Compose(written.out, written.err, queries.size(), " queries in ",
                   clock.Now().time_since_epoch() / 1ms, " ms"));
  }

  /// A frame from the hand or another, or one that only looks like that. Returns when it is taken.
  void Arrive(std::uint32_t id, std::uint8_t status = 0, std::uint8_t len = 4) {
    sniffer_->Send({id, len, {status}});
    clock_.SleepFor(1ms);
  }
  void Disturb(std::chrono::milliseconds delay, double foreign = 0) {
    sim::Faults faults;
    faults.delay = delay;
    faults.foreign = foreign;
    bus_.SetFaults(faults);
  }

  /// The requests since the last update began, as UpdateLetters.
  std::string Wire(std::size_t size = kThreePackets) {
    letters_.expected = test::PaddedImage(size);
    while (const auto frame = sniffer_->Receive(0ns)) {
      const auto& [id, len, data] = *frame;
      if ((id & 0xFE0080) != 0xF00080) continue;  // not of the update, or a reply
      const std::size_t child = id >> 24;
      const std::size_t used = child == 1 ? 6 : child == 2 ? 4 : 0;
      const bool padded = std::none_of(data.begin() + used, data.end(), [](int b) { return b; });
      const bool request = id == RequestId(id >> 24) && padded;
      if (id == (RequestId(1) ^ 0x10000) && len == 64) {
        letters_.Data(data.data(), 64);
        continue;
      }
      if (child == 2 && request && len == 64) {
        letters_.StartPacket(data[0]);
      } else {
        letters_.Request(child, request && len == (child == 1 ? 6 : 64));
      }
    }
    return letters_.Take();
  }

  /// What is reported and requested, and how long it takes.
  void RecordRun(const std::string& about, std::size_t size = kThreePackets) {
    const std::string reports = Update(size);
    const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Took()).count();
    recorded_ += Compose(about, ": ", reports, "| ", Wire(size), " | ", took, " ms",
                         state_->HasCallback() ? ", callback kept\n" : "\n");
  }

  /// Padding isn't shown.
  void Record(const std::string& about, std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    if (text.empty()) return;
    recorded_ += "## " + about + "\n" + text + (text.back() == '\n' ? "" : "\n");
  }

  /// That an adapter can't send.
  void ExpectALineForEachDataFrame() {
    const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
    rig.device->script = [](const CanfdFrame& frame) {
      if ((frame.can_id & 0xFF0000) == 0xF00000) throw std::runtime_error("gone");
      return std::vector<CanfdFrame>{};
    };
    test::VirtualClock clock(1);
    dynamic_cast<CanUpdateState&>(*rig.hand).ota_clock = &clock;
    test::UpdateRunner().Run(*rig.hand, clock);
    const std::string told = test::Told([&] { model_.send_all(*rig.hand); });
    std::string expected;
    for (int frame = 0; frame < 32; ++frame) {
      expected += Compose(model_.hand.OfClass(), "[SendPackage][frame:", frame, "] gone\n");
    }
    EXPECT_EQ(told, model_.any_family ? expected : "") << "a Quill's update tells nothing";
    EXPECT_EQ(rig.device->TakeSent().size(), 12 + 1 + 32 + 2U);
  }

  void ExpectAsSettled() const {
    RecordProperty("recorded", recorded_);  // with --gtest_output=xml
    EXPECT_EQ(recorded_,
              SettledLines(testing::UnitTest::GetInstance()->current_test_info()->name()));
  }

  const Model& model_ = GetParam();
  test::VirtualClock clock_{2};
  sim::VirtualBus bus_{clock_};
  const std::unique_ptr<sim::VirtualBus::Port> sniffer_ = bus_.Open();
  test::UpdateRunner runner_;
  test::UpdateLetters letters_;
  std::unique_ptr<KorvaneBase> hand_;
  CanUpdateState* state_ = nullptr;
  std::string recorded_;
};

INSTANTIATE_TEST_SUITE_P(, HandUpdate,
                         testing::Values(Brisa(), Tessel(), Lumen(), Vanta(), Quill()),
                         testing::PrintToStringParamName());

// --- What is reported and sent --------------------------------------------------------------

TEST_P(HandUpdate, InstallsFilesOfAnySizeByteForByteInThePaceThatTheHandNeeds) {
  Update();
  EXPECT_EQ(hand_->GetVendorInfo().software_version.minor, 1);
  for (const std::size_t size : {1U, 2047U, 2048U, 2049U, 20000U}) {
    EXPECT_THAT(Update(size), testing::EndsWith("=0 ")) << size;
    // 100 ms, the packets, 100 ms; none of it real time.
    EXPECT_GE(Took(), 200ms + 170ms * ((size + 2047) / 2048));
    EXPECT_TRUE(Installed(size)) << size;
    EXPECT_EQ(Wire(size), (model_.first_packet_twice ? "U0" : "U") +
                              std::string("0123456789", (size + 2047) / 2048) + "FR");
  }
}

/// The number is the code of a missing reply, and still what the hand said.
TEST_P(HandUpdate, AStatusIsARefusalWhateverItsNumberIs) {
  for (const Child child : {Child::kUpgrade, Child::kPacket, Child::kFinish}) {
    SetFaults({{Kind::kStatus, child, 0xFFFFFFFC, child == Child::kPacket ? 2U : 0U}});
    Update();
    EXPECT_EQ(LastFailure(*hand_).kind, FailureKind::REFUSED) << static_cast<int>(child);
  }
}

/// What is written doesn't tell one from another.
TEST_P(HandUpdate, AnUpgradeRequestThatDoesNotGoOutIsNoSilentHand) {
  const std::tuple<bool, bool, FailureKind> links[] = {{true, true, FailureKind::NO_REPLY},
                                                       {true, false, FailureKind::SEND_FAILED},
                                                       {false, false, FailureKind::NO_LINK}};
  for (const auto& [opens, sends, kind] : links) {
    const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, opens, model_.hand.make);
    if (!sends) rig.device->script = test::CantSend();
    test::VirtualClock clock(1);
    dynamic_cast<CanUpdateState&>(*rig.hand).ota_clock = &clock;
    runner_.Run(*rig.hand, clock);
    EXPECT_STREQ(ToString(LastFailure(*rig.hand).kind), ToString(kind));
  }
}

/// All that can go wrong in a run, one at a time and then together.
TEST_P(HandUpdate, ReportsAndRequestsWhatIsSettled) {
  RecordRun("undisturbed");
  const std::string clean = runner_.Outcome().reports;
  for (const sim::UpdateFault& fault : EveryFault()) {
    const bool first = fault.child == Child::kPacket && fault.at == 1;
    const bool decided = fault.child == Child::kRestart || (first && model_.first_packet_twice);
    if (fault.kind == Kind::kRestartFirst && decided) continue;  // it is what was awaited
    SetFaults({fault});
    const std::string text = Text(fault);
    if (fault.kind == Kind::kDuplicate) {
      EXPECT_THAT(Update(), testing::EndsWith(" 3/3=0 ")) << text;
      EXPECT_EQ(Wire().find('?'), std::string::npos) << text;
    } else {
      // The copy of the last of three packets would pass just when the run looks for the end.
      const bool copies_later = model_.first_packet_twice && fault.child == Child::kUpgrade;
      RecordRun(text, copies_later && fault.at == 1 ? kFourPackets : kThreePackets);
    }
    SetFaults({});
    EXPECT_EQ(Update(), clean) << "after " << text;
    EXPECT_TRUE(Installed()) << text;
  }
  // A refusal of the first packet is reported within a second also where it goes out twice: its
  // copy may wait for its turn when the refusal comes, or the acceptance may be seen after it.
  for (const bool seen_late : {false, true}) {
    SetFaults(
        {{Kind::kStatus, Child::kPacket, 5, 1},
         {Kind::kLose, Child::kPacket, 0, 2},
         {seen_late ? Kind::kLose : Kind::kDuplicate, Child::kUpgrade, 0, seen_late ? 1U : 9U}});
    Record(seen_late ? "acceptance seen late" : "acceptance seen twice", Update());
    EXPECT_LT(Took(), 1300ms);
  }
  SetFaults({{Kind::kStatus, Child::kPacket, 1, 1}, {Kind::kLose, Child::kPacket, 0, 2}});
  RecordRun("no reply to the other checksum");
  SetFaults({});
  Firmware([](auto& firmware) { firmware.SetChecksum(sim::UpdateChecksum::kXmodem); });
  RecordRun("the other checksum");
  SetFault(Kind::kStatus, Child::kPacket, 1);
  RecordRun("no checksum is right");
  Disturb(1ms);  // the reply to the last request is too late
  SetFault(Kind::kRestartFirst, Child::kUpgrade);
  RecordRun("it restarts each time");
  SetFault(Kind::kStatus, Child::kUpgrade, 99);
  RecordRun("status 99 each time");
  bus_.SetPlugged(0, false);
  RecordRun("unplugged");
  bus_.SetPlugged(0, true);
  SetFaults({});
  hand_->SetFrameRecvTimeout(10);  // virtual time stands meanwhile, and so do replies on their way
  RecordRun("plugged in again");
  UseTransport(nullptr);
  RecordRun("no transport");
  ExpectAsSettled();
}

TEST_P(HandUpdate, ReportsAFileThatIsNoImage) {
  Update();  // leaves counts of its own behind
  for (const auto& [path, code] : {std::pair<std::string, int>{"/no/such/file", -2},
                                   {test::TemporaryFile({}).Path(), -2},
                                   {"/tmp", -3}}) {
    EXPECT_EQ(UpdateFrom(path), ReportText(code, 0, -1));
    EXPECT_EQ(Written().err, "");
    EXPECT_FALSE(state_->HasCallback());
  }
}

TEST_P(HandUpdate, ReportsAFileThatThereIsNoMemoryFor) {
  if (!test::AllocationHook::Works()) GTEST_SKIP() << "a sanitizer allocates";
  const test::TemporaryFile image(FirmwareBytes(kThreePackets));
  // For the stream, the bytes of the file and each packet.
  for (int allocation = 1; allocation <= 5; ++allocation) {
    const test::AllocationHook none_left(2048, allocation, &test::ThrowBadAlloc);
    EXPECT_EQ(runner_.Run(*hand_, clock_, image.Path()).reports, "-3/0=-1 ") << allocation;
    EXPECT_TRUE(none_left.Ran());
    EXPECT_FALSE(state_->HasCallback());
  }
}

// --- What is written ------------------------------------------------------------------------

TEST_P(HandUpdate, WritesTheLinesThatAreSettled) {
  const auto record_faults = [&](std::size_t size, const std::vector<sim::UpdateFault>& faults) {
    for (const auto& fault : faults) {
      SetFaults({fault});
      Record(Text(fault), UpdateSilently(size).err);
    }
  };
  Update();
  Record("with a callback", Written().err + Written().out);
  UpdateSilently();
  Record("without one", Written().err + Written().out);
  // A hand that doesn't come back counts as updated.
  Firmware([](auto& firmware) { firmware.SetRestartTime(1h); });
  hand_->SetFrameRecvTimeout(10);
  RecordRun("not back");
  clock_.SleepFor(1h);
  UpdateSilently();
  const std::string& err = Written().err;  // ten questions before
  Record("not back, without a callback", err.substr(err.rfind("timeout")) + Written().out);
  Firmware([](auto& firmware) { firmware.SetRestartTime(50ms); });
  test::BePatient(*hand_);
  clock_.SleepFor(1h);
  record_faults(kThreePackets, {{Kind::kStatus, Child::kUpgrade, 1},
                                {Kind::kStatus, Child::kUpgrade, 2},
                                {Kind::kStatus, Child::kUpgrade, 3},
                                {Kind::kStatus, Child::kUpgrade, kUnknownStatus},
                                {Kind::kStatus, Child::kPacket, 1, 2},
                                {Kind::kStatus, Child::kPacket, 5, 3},
                                {Kind::kLose, Child::kPacket, 0, 1},
                                {Kind::kLose, Child::kPacket, 0, 3},
                                {Kind::kLose, Child::kFinish},
                                {Kind::kLose, Child::kRestart}});
  Disturb(450ms);  // so slow that each wait meets its own reply
  record_faults(1, {{Kind::kStatus, Child::kFinish, 1},
                    {Kind::kStatus, Child::kFinish, 2},
                    {Kind::kStatus, Child::kFinish, 3},
                    {Kind::kStatus, Child::kFinish, 4},
                    {Kind::kStatus, Child::kFinish, kUnknownStatus},
                    {Kind::kStatus, Child::kRestart, 7}});
  Record("which says", LineWith("Restart response", Written().out));
  Disturb(0ms);
  SetFault(Kind::kStatus, Child::kUpgrade, 99);
  Record("99", (Update(), Written().err));
  Disturb(1ms);  // the reply to the last request is too late
  SetFault(Kind::kRestartFirst, Child::kUpgrade);
  Record("restarts first", (Update(), Written().err + LineWith("aiting for r", Written().out)));
  Disturb(0ms);
  SetFaults({});
  Firmware([](auto& firmware) { firmware.SetChecksum(sim::UpdateChecksum::kXmodem); });
  Record("the other checksum", (Update(), Written().err));
  bus_.SetPlugged(0, false);
  UpdateSilently();
  Record("unplugged", Written().err + Written().out);
  Record("no file", (UpdateFrom("/no/such/file", false), Written().err));
  Record("a folder", (UpdateFrom("/tmp", false), Written().err));
  UseTransport(nullptr);
  Record("no transport", UpdateSilently().err);
  Record("steps", test::Told([&] { model_.send_all(*hand_); }));
  ExpectALineForEachDataFrame();
  for (const int status : {0, 6, 99}) RecordResult(static_cast<std::uint8_t>(status));
  ExpectAsSettled();
}

// --- Frames outside of a run ----------------------------------------------------------------

/// As ever it takes the reply for its own, has no packet left and says so to the hand.
TEST_P(HandUpdate, ByEventsLeavesTheUpdateOfAnotherAlone) {
  for (const Receiving how : {Receiving::BY_EVENTS, Receiving::AS_EVER, Receiving::BY_EVENTS}) {
    SetReceiving(*hand_, how);
    Wire();
    Arrive(ReplyId(2));
    EXPECT_EQ(Wire(), how == Receiving::BY_EVENTS ? "" : "F");
    UpdateFrom("/no/such/file", true);
    Arrive(ReplyId(2));
    EXPECT_EQ(Wire(), how == Receiving::BY_EVENTS ? "" : "F") << "an update that never began";
    EXPECT_THAT(Update(), testing::EndsWith(" 3/3=0 "));
    EXPECT_TRUE(Installed());
  }
}

TEST_P(HandUpdate, TakesFramesOutsideARunAsItsModelDoes) {
  for (const auto id : {ReplyId(0), ReplyId(0x1F), ReplyId(2) ^ 0x30000, RequestId(2)}) Arrive(id);
  Arrive(ReplyId(2), 0, 3);
  EXPECT_EQ(state_->ota_status, 99U) << "none of these is a reply";
  EXPECT_EQ(state_->ota_child_id, -1);
  EXPECT_EQ(state_->ota_package_index, 0U);
  for (const auto& [child, status] : {std::pair{5U, 0}, {4U, 0}, {4U, 7}}) {
    const auto arrive = [&, id = ReplyId(child), byte = static_cast<std::uint8_t>(status)] {
      Arrive(id, byte);
    };
    const std::string written = CaptureStreams(arrive).out;
    Record(Compose(child, " with ", status), Compose(written, state_->ota_status.load()));
  }
  ExpectAsSettled();
}

TEST_P(HandUpdate, TakesRepliesOfTheSendersThatItsModelListensTo) {
  const std::string clean = Update();
  Disturb(0ms, /*foreign=*/1);
  EXPECT_EQ(Update() == clean, !model_.any_sender);
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  const auto& index = dynamic_cast<CanUpdateState&>(*rig.hand).ota_package_index;
  // With the write flag and one of the adapter too.
  for (const auto& [id, taken] : {std::pair{ReplyId(2), true},
                                  {ReplyId(2) | 0x80000080, true},
                                  {ReplyId(2) ^ 0x22, model_.any_sender},
                                  {ReplyId(2) ^ 0x600, model_.any_family}}) {
    const std::uint32_t before = index;
    CaptureStreams([&, &reply_id = id] { rig.device->Receive(test::FullFrame(reply_id, {}, 4)); });
    EXPECT_EQ(index, before + (taken ? 1 : 0)) << id;
    // An acknowledgment without a packet still counts, and asks the hand to finish.
    const std::string finish = test::Show(std::vector{test::FullFrame(RequestId(3), {})});
    EXPECT_EQ(test::Show(rig.device->TakeSent()), taken ? finish : "");
  }
}

/// An id that a program gives the hand counts at once, however it is given.
TEST_P(HandUpdate, GoesToThePresentId) {
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  test::VirtualClock clock(1);
  auto& state = dynamic_cast<CanUpdateState&>(*rig.hand);
  state.ota_clock = &clock;
  std::vector<std::function<void(std::uint8_t)>> ways{
      [&](std::uint8_t id) { rig.hand->SetDeviceId(id); },
      [&](std::uint8_t id) { rig.hand->device_id = id; }};
  if (auto* const tessel = dynamic_cast<KorvaneTessel*>(rig.hand.get())) {
    ways.emplace_back([=](std::uint8_t id) { tessel->Reset(id, HandType::LEFT); });
  }
  if (auto* const vanta = dynamic_cast<KorvaneVanta*>(rig.hand.get())) {
    ways.emplace_back([=](std::uint8_t id) { vanta->Reset(id, HandType::LEFT); });
  }
  std::uint8_t id = kId;
  for (const auto& give : ways) {
    const std::uint32_t before = state.ota_package_index;
    const std::uint8_t old_id = id++;
    give(id);
    rig.device->TakeSent();
    CaptureStreams([&] {
      rig.device->Receive(test::FullFrame(ReplyId(2, old_id), {}, 4));
      rig.device->Receive(test::FullFrame(ReplyId(2, id), {}, 4));
    });
    EXPECT_EQ(state.ota_package_index, before + (model_.any_sender ? 2 : 1));
    const auto sent = rig.device->TakeSent();
    ASSERT_FALSE(sent.empty());
    EXPECT_EQ(test::Show({sent.back()}), test::Show({test::FullFrame(RequestId(3, id), {})}));
    rig.device->script = test::Replies({0}, 4);
    CaptureStreams([&] { model_.query_result(*rig.hand); });
    EXPECT_EQ(rig.device->TakeSent().at(0).can_id, RequestId(5, id));
  }
  rig.device->script = test::RepliesInFrames({});
  for (const auto& give : ways) {
    give(++id);
    rig.device->TakeSent();
    test::UpdateRunner().Run(*rig.hand, clock);
    EXPECT_EQ(rig.device->TakeSent().at(0).can_id, RequestId(1, id));
  }
}

/// ThreadSanitizer's case: the receive thread compares the id while others change, use and ask for
/// it.
TEST_P(HandUpdate, TakesRepliesWhileTheIdChanges) {
  const test::Rig<KorvaneBase> rig(kId, HandType::RIGHT, true, model_.hand.make);
  const auto& status = dynamic_cast<CanUpdateState&>(*rig.hand).ota_status;
  CaptureStreams([&] {
    std::thread changes([&] {
      for (std::uint8_t id = 1; id <= 100; ++id) rig.hand->SetDeviceId(id);
    });
    std::thread sends([&] {
      rig.hand->SetFrameRecvTimeout(10);
      EXPECT_FALSE(IdentifyHand(*rig.hand));
      for (int i = 0; i < 100; ++i) model_.send_restart(*rig.hand);
    });
    for (std::uint8_t id = 1; id <= 100; ++id) {
      rig.device->Receive(test::FullFrame(ReplyId(2, id), {5}, 4));
    }
    changes.join();
    sends.join();
    rig.device->Receive(test::FullFrame(ReplyId(2, 100), {6}, 4));
  });
  EXPECT_EQ(status, 6U);
  EXPECT_EQ(rig.hand->device_id, 100);
}

}  // namespace
}  // namespace talvera::korvane
