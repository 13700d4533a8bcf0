#include "korvane_sim/service_face.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <thread>

#include "korvane_sim/serial_hand.h"
#include "korvane_sim/virtual_bus.h"
#include "support/exchange_script.h"
#include "support/virtual_clock.h"

namespace talvera::korvane::sim {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using test::Bytes;
using test::Hex;

/// A command, its payload and that of the reply, none for no reply; "pass 50" lets milliseconds
/// pass; "restart" switches off and on.
const std::pair<const char*, const char*> kScripts[] = {
    {"every command and what it refuses", R"(
        02 > 01; 01 02 > 01; 04 FE07 > 01; 04 FF07 > 00; 04 0000 > 00; 04 01 >; 05 > 01;
        06 030010 > 030010; 06 0B0000 > 00; 06 000000 > 00; 07 0A > 0A0010; 07 0C > 00; 07 >;
        08 0010*10 > 0010*10 00*40; 08 00*18 >; 09 > 0010*10; 09 01 >; 0A > 00*20; 0B > 00*20;
        0C > 19*10; 0D > 0000; 0E > 01; 0F 06 > 00; 10 > 0010*10; 11 00 > 00*17; 11 07 >;
        11 06 > 06 00*25; 12 > 00*48; 13 > 00*32; 14 > 00*50; 15 0304 > 0304; 15 0308 > 00;
        15 0B04 > 00; 18 0010*10 > 0010*10 00*40; 19 > 0010*10; 1A > 00*20; 1B 030110 > 00;
        1D > 01; 20 0010*10 > 01; 20 00*8 >; 21 01E803 > 01; 21 01E903 > 00; 21 0105 >;
        22 01FFFF > 01; 23 0165 > 00; 24 0AFF > 01; 25 01B20C > 01; 25 01B30C > 00;
        26 > 0102030405060708090A; 27 > 01020304050607; 29 > 001000000000*10;
        30 > 00*20 0010*10; 31 01 > 01; 31 02 > 00; 32 00*50 > 0010*10 00*40; 33 > 00*35; 34 5A > 01;
        80 01 > 01; 80 02 > 01; 81 > 01; C1 78*19 > 01; C1 78*18 >; C2 > 78*19;
        CD > 02000001000001 00000A; F1 >; F1 0100 >; F0 >; F0 00*80 >; 7E >)"},
    {"limits, homing, actions and power", R"(
        1B 03E803 > 01; 1C 03D007 > 01; 1B 03D107 > 00; 03 056400 > 01; 03 060010 > 00;
        08 00*20 > 0010*4 9C0F 0010*5 00*40; pass 3000; 07 03 > 03E803; 07 05 > 050000;
        17 05 > 056400; 16 05E803 > 056400; pass 3000; 07 05 > 058403; 06 05F401 > 058403;
        pass 3000; 17 05 > 055802; 0F 01 > 01; pass 3000; 07 03 > 03D007; 1D > 01;
        01 00 > 01; 02 > 00; 0F 02 > 00; 06 030000 > 03D007; pass 3000; 07 03 > 03D007)"},
    {"a mixed motion leaves alone what it doesn't mean", R"(
        15 0105 > 0105; 32 00*4 0008 00*14 0CFE 00*28 > 0010*10 00*40; pass 20000;
        09 > 0000 0010 0008 0010*7)"},
    {"settings that are saved outlive a restart", R"(
        1C 030001 > 01; 05 > 01; 1C 040001 > 01; 34 19 > 01; 01 00 > 01; restart; 02 >;
        pass 2000; 02 > 01; 30 > 00*20 0010*2 0001 0010*7; 0D > 0000)"},
    {"errors stay until they are cleared",
     "34 19 > 01; 0D > 0200; 34 50 > 01; 0D > 0200; 0E > 01; 0D > 0000"},
};

TEST(ServiceFaceTest, AnswersAsItIsScripted) {
  for (const auto& [about, script] : kScripts) {
    SCOPED_TRACE(about);
    SimulatedHand hand(kBrisa, 1);
    ServiceFace face(hand, ServiceLink::kSerial);
    SimulatedHand::TimePoint now{std::chrono::hours(1)};
    hand.Advance(now);
    const auto ask = [&](const std::string& text) {
      const Bytes bytes = Hex(text);
      const auto replies = face.Handle(hand, {bytes[0], {bytes.begin() + 1, bytes.end()}}, now);
      return replies.empty() ? Bytes{} : replies[0].data;
    };
    test::Play(
        script, ask, [&](auto time) { hand.Advance(now += time); },
        [&] { face.Restart(hand, now); });
  }
}

TEST(ServiceFaceTest, ExpectsTheChecksumThatGoesWithItsFirmware) {
  using Versions = std::vector<std::array<std::uint8_t, 4>>;
  for (const auto& v : Versions{{0, 9, 9}, {1, 0, 0, 9}, {15, 0, 1}, {15, 1}, {16}}) {
    EXPECT_EQ(SerialChecksum(v), UpdateChecksum::kXmodem) << int{v[0]};
  }
  for (const auto& v : Versions{{1, 0, 1}, {1, 1}, {2}, {14, 1}, {15}}) {
    EXPECT_EQ(SerialChecksum(v), UpdateChecksum::kModbus) << int{v[0]};
  }
}

/// A hand with the id 1 on a bus, and a host beside it.
struct HandOnCan {
  explicit HandOnCan(const ModelRow& model) { bus.Add({model, 1}); }

  /// Requests are service commands, but where there is a colon, public frames.
  void Play(const std::string& script) {
    const auto ask = [this](const std::string& text) {
      const auto colon = text.find(':');
      const bool is_service = colon == std::string::npos;
      const auto id = is_service ? 9 : std::stoul(text, nullptr, 16);
      const Bytes data = Hex(text.substr(is_service ? 0 : colon + 1));
      EXPECT_TRUE(port->Send(test::MakeFrame(static_cast<std::uint32_t>(id), data)));
      const auto reply = port->Receive({});
      if (!reply) return Bytes{};
      EXPECT_EQ(reply->id == 9, is_service);
      return test::DataOf(*reply);
    };
    test::Play(
        script, ask, [this](auto time) { clock.SleepFor(time); }, [this] { bus.Restart(0); });
  }

  test::VirtualClock clock{1};
  VirtualBus bus{clock};
  std::unique_ptr<VirtualBus::Port> port = bus.Open();
};

TEST(ServiceOnCanTest, BothProtocolsSeeTheSameHandWhichRestartsIntoWhatWasSaved) {
  for (const std::string restart : {"restart", "F1 04 > F2 04 00*4", "04F10181: > 00*4"}) {
    HandOnCan on(kLumen);
    on.Play(R"(
        03 026400 > 03 01; 15 0105 > 15 01; 01030181: 2C01 > 2C01; 05 > 05 01;
        03 020000 > 03 01; 15 0104 > 15 01; 01030181: 2D01 > 2D01; 01 00 > 01 01;)" +
            restart + R"(;
        02 >; pass 2000; 02 > 02 01; 07 02 > 07 029C0F; 01100101: > 05; 01030101: > 2C01;
        04 AA01 > 04 01; restart; pass 2000; 01030101: > 2C01; 04 AA01 > 04 01; 02030101: >; 010201AA: 05 > 05; restart)");
    EXPECT_EQ(on.bus.Settings(0).axes[0].current, 0x12C);
    EXPECT_EQ(on.bus.Settings(0).device_id, 5) << "which the public protocol saves at once";
  }
}

const std::string kAsk = "EEAA 0100 01 02 9602";
const std::string kPower = "EEAA 0100 02 02 01 33FF ";
const std::string kForeign = "EEAA 0200 02 02 FE 110F ";
const std::string kUpload = "EEAA 0100 3D 29 001000000000*10 4A47 ";

/// A hand behind a link, and a host that has the port open.
struct SerialHandTest : testing::Test {
  SerialHandTest() { Open(); }
  ~SerialHandTest() override { close(port_); }

  void Open() {
    close(port_);
    port_ = open(link_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  }

  void Write(const std::string& text) const {
    const Bytes bytes = Hex(text);
    ASSERT_EQ(write(port_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  /// Waits for so many bytes; fewer come back only from a port that is dead.
  Bytes Read(std::size_t size) const {
    Bytes bytes;
    std::uint8_t byte = 0;
    while (bytes.size() < size && read(port_, &byte, 1) == 1) bytes.push_back(byte);
    return bytes;
  }

  void Exchange(const std::string& sent, const std::string& expected) const {
    Write(sent);
    EXPECT_EQ(Read(Hex(expected).size()), Hex(expected)) << "to " << sent;
  }

  /// Waits until that has reached the hand, which doesn't answer.
  void AskForNothing() {
    const auto before = device_.Statistics().from_host;
    Write(kAsk);
    while (device_.Statistics().from_host == before) std::this_thread::yield();
  }

  void Spoil(void (*set)(SerialFaults&)) {
    SerialFaults faults;
    set(faults);
    device_.SetFaults(faults);
  }

  const std::string link_ =
      fs::temp_directory_path() / ("korvane-hand-" + std::to_string(getpid()));
  test::VirtualClock clock_{1};
  SerialHand device_{{kBrisa, 1}, link_, clock_};
  int port_ = -1;
};

TEST_F(SerialHandTest, AnswersFramesForItThatHaveTheRightTrailerAndUploadsOnItsPeriod) {
  Write("00EE EEAAFF EEAA 0100 00 5555");              // Noise, and a frame without a command.
  Write("EEAA 0100 01 09 5555");                       // No checksum.
  Write("EEAA 0100 01 09 CF27 EEAA 0200 01 09 2128");  // The wrong kind, another hand.
  Write("EEAA 0100 08 F1 01 00080000 0100 FFED");      // An upgrade must have none.
  Exchange(kAsk, kPower);
  EXPECT_EQ(device_.Statistics().other_id, 1U);
  Exchange("EEAA FF07 01 09 7A0B", "EEAA 0100 15 09 0010*10 6A84");
  for (const char* byte : {"EE", "AA", "01", "00", "01", "02", "96", "02"}) Write(byte);
  Exchange(kAsk + " " + kAsk, kPower + kPower + kPower);
  const auto rejected = device_.Statistics().rejected;
  Exchange("EEAA 0100 04 06 0BEEAA 67E2 " + kAsk, "EEAA 0100 02 06 00 D623" + kPower);
  EXPECT_EQ(device_.Statistics().rejected, rejected) << "a value that looks like a header";
  Exchange("EEAA 0100 08 F1 01 00080000 0100 5555", "EEAA 0100 06 F2 01 00*4 2C87");
  Exchange("EEAA 0100 06 F1 04 00*4 9B6A", "EEAA 0100 06 F2 04 00*4 7BA4");
  AskForNothing();
  clock_.SleepFor(std::chrono::seconds(2));
  // Other firmware expects another checksum.
  device_.WithHand([](auto& hand) { hand.GetIdentity().software_version = {1, 1, 0, 0}; });
  Exchange("EEAA 0100 01 CD 352A", "EEAA 0100 0B CD 020000 010100 010000 0A F5C7");
  Write("EEAA 0100 06 F1 03 00*4 4F0D");
  Exchange("EEAA 0100 06 F1 03 00*4 79DC", "EEAA 0100 06 F2 03 01 00*3 7813");
  Exchange("EEAA 0100 03 28 3200 854A", "EEAA 0100 02 28 01 1E16");
  clock_.SleepFor(milliseconds(50));
  Exchange("", kUpload);
  device_.WithHand([this](auto& hand) { hand.Restart(clock_.Now()); });
  clock_.SleepFor(std::chrono::seconds(2));
  Exchange(kAsk, kPower);  // An upload would come before: the period wasn't saved.
}

TEST_F(SerialHandTest, SpoilsRepliesAsItIsTold) {
  Spoil([](SerialFaults& f) { f.duplicate = f.foreign = 1; });
  Exchange(kAsk, kForeign + kPower + kPower);
  Spoil([](SerialFaults& f) { f.loss = f.foreign = 1; });
  Exchange(kAsk, kForeign);
  EXPECT_EQ(device_.Statistics().lost, 1U);
  Spoil([](SerialFaults& f) { f.bad_checksum = 1, f.merge = true; });
  Exchange(kAsk, "EEAA 0100 02 02 01 3300" + kUpload);
  Spoil([](SerialFaults& f) { f.silent_after = 0; });
  AskForNothing();
  Spoil([](SerialFaults& f) { f.delay = f.split = milliseconds(1); });
  AskForNothing();
  clock_.SleepFor(milliseconds(4));
  Exchange("", "EEAA 0100");
  clock_.SleepFor(milliseconds(5));
  Exchange("", "02 02 01 33FF");
  Spoil([](SerialFaults& f) { f.junk = 1; });
  Write(kAsk);
  EXPECT_NE(Read(1), Hex("EE"));
  while (Read(1) != Hex("EE")) {
  }
  Exchange("", kPower.substr(2));
}

TEST_F(SerialHandTest, KeepsItsPathFromOnePlugToTheNext) {
  Spoil([](SerialFaults& f) { f.unplug_after = 1, f.replug_after = milliseconds(500); });
  Write(kAsk);
  EXPECT_TRUE(Read(1).empty());
  EXPECT_LT(write(port_, "x", 1), 0);
  EXPECT_FALSE(fs::is_symlink(link_));
  clock_.SleepFor(milliseconds(500));
  while (!fs::exists(link_)) std::this_thread::yield();
  Open();
  Exchange(kAsk, kPower);
  // What was on its way when the plug was pulled is gone.
  Spoil([](SerialFaults& f) { f.delay = milliseconds(1); });
  AskForNothing();
  device_.Unplug();
  device_.Plug();
  Open();
  clock_.SleepFor(milliseconds(1));
  Spoil([](SerialFaults&) {});
  Exchange("EEAA FF07 01 09 7A0B", "EEAA 0100 15 09 0010*10 6A84");
}

TEST_F(SerialHandTest, ReplacesALinkThatLeadsNowhereAndNothingElse) {
  const std::string other = link_ + "-other";
  fs::create_symlink(link_ + "-nothing", other);
  const SerialHand second({kBrisa, 2}, other);
  EXPECT_EQ(fs::read_symlink(other), second.Device());
  EXPECT_THROW(SerialHand({kBrisa, 3}, other), std::runtime_error);
  EXPECT_THROW(SerialHand({kBrisa, 3}, fs::temp_directory_path()), std::runtime_error);
  EXPECT_THAT(
      [&] {
        SerialHand({kBrisa, 3}, other + "/link");
      },
      testing::ThrowsMessage<std::runtime_error>("can't make the link " + other +
                                                 "/link: Not a directory"));
  EXPECT_EQ(fs::read_symlink(other), second.Device());
}

}  // namespace
}  // namespace talvera::korvane::sim
