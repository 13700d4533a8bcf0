#include "korvane_sim/service_face.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "korvane_sim/serial_hand.h"
#include "korvane_sim/virtual_bus.h"
#include "support/manual_clock.h"
#include "support/temporary_file.h"
#include "util/crc16.h"

namespace talvera::korvane::sim {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using Bytes = std::vector<std::uint8_t>;

/// "EEAA 00*3" is EE AA 00 00 00.
Bytes Hex(const std::string& text) {
  std::istringstream words(text);
  Bytes bytes;
  for (std::string word; words >> word;) {
    const std::size_t digits = std::min(word.find('*'), word.size());
    for (int n = digits < word.size() ? std::stoi(word.substr(digits + 1)) : 1; n > 0; --n) {
      for (std::size_t at = 0; at < digits; at += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(word.substr(at, 2), nullptr, 16)));
      }
    }
  }
  return bytes;
}

struct Script {
  const char* about;
  ServiceLink link;
  const ModelRow& model;
  /// Statements with semicolons between them: "06 030010 > 030010" is a command, its payload and
  /// the reply, empty for none; "pass 50" lets milliseconds pass; "restart" switches off and on.
  const char* text;
};

const Script kScripts[] = {
    {"every command and what it refuses", ServiceLink::kSerial, kBrisa, R"(
        02 > 01; 01 02 > 01; 04 FE07 > 01; 04 FF07 > 00; 04 0000 > 00; 04 01 >; 05 > 01;
        06 030010 > 030010; 06 0B0000 > 00; 06 000000 > 00; 07 0A > 0A0010; 07 0C > 00; 07 >;
        08 0010*10 > 0010*10 00*40; 08 00*18 >; 09 > 0010*10; 09 01 >; 0A > 00*20; 0B > 00*20;
        0C > 19*10; 0D > 0000; 0E > 01; 0F 06 > 00; 10 > 0010*10; 11 00 > 00*17; 11 07 >;
        11 06 > 06 00*25; 12 > 00*48; 13 > 00*32; 14 > 00*50; 15 0304 > 0304; 15 0308 > 00;
        15 0B04 > 00; 18 0010*10 > 0010*10 00*40; 19 > 0010*10; 1A > 00*20; 1B 030110 > 00;
        1D > 01; 20 0010*10 > 01; 20 00*8 >; 21 01E803 > 01; 21 01E903 > 00; 21 0105 >;
        22 01FFFF > 01; 23 0165 > 00; 24 0AFF > 01; 25 01B20C > 01; 25 01B30C > 00;
        26 > 0102030405060708090A; 27 > 01020304050607; 29 > 001000000000*10;
        30 > 00*20 0010*10; 31 01 > 01; 31 02 > 00; 32 00*50 > 0010*10 00*40; 34 5A > 01;
        80 01 > 01; 80 02 > 01; 81 > 01; C1 78*19 > 01; C1 78*18 >; C2 > 78*19;
        CD > 02000001000001 00000A; F1 >; F1 0100 >; F0 >; F0 00*80 >; 7E >)"},
    {"limits, homing, actions and power", ServiceLink::kSerial, kBrisa, R"(
        1B 03E803 > 01; 1C 03D007 > 01; 1B 03D107 > 00; 03 056400 > 01; 03 060010 > 00;
        08 00*20 > 0010*4 9C0F 0010*5 00*40; pass 3000; 07 03 > 03E803; 07 05 > 050000;
        17 05 > 056400; 16 05E803 > 056400; 0F 01 > 01; pass 3000; 07 03 > 03D007; 1D > 01;
        01 00 > 01; 02 > 00; 0F 02 > 00; 06 030000 > 03D007; pass 3000; 07 03 > 03D007)"},
    {"a mixed motion leaves alone what it doesn't mean", ServiceLink::kSerial, kBrisa, R"(
        15 0105 > 0105; 32 00*4 0008 00*14 0CFE 00*28 > 0010*10 00*40; pass 20000;
        09 > 0000 0010 0008 0010*7)"},
    {"settings that are saved outlive a restart", ServiceLink::kSerial, kBrisa, R"(
        1C 030001 > 01; 05 > 01; 1C 040001 > 01; 34 19 > 01; 01 00 > 01; restart; 02 >;
        pass 2000; 02 > 01; 30 > 00*20 0010*2 0001 0010*7; 0D > 0000)"},
    {"errors stay until they are cleared", ServiceLink::kSerial, kBrisa,
     "34 19 > 01; 0D > 0200; 34 50 > 01; 0D > 0200; 0E > 01; 0D > 0000"},
    {"CAN pads payloads, Lumen has four axes", ServiceLink::kCan, kLumen, R"(
        15 0304 > 01; 06 050000 > 00; 21 042C > 01; 08 00*11 > 0010*4 00*16; 0A > 00*20;
        30 > 00*8 0010*4; 12 >; 34 19 > 01; 0D > 1500)"},
};

TEST(ServiceFaceTest, AnswersAsItIsScripted) {
  for (const Script& script : kScripts) {
    SimulatedHand hand(script.model, 1);
    ServiceFace face(hand, script.link);
    SimulatedHand::TimePoint now{std::chrono::hours(1)};
    hand.Advance(now);
    std::istringstream statements(script.text);
    for (std::string statement; std::getline(statements, statement, ';');) {
      std::string word;
      std::istringstream(statement) >> word;
      if (word == "pass") {
        hand.Advance(now += milliseconds(std::stoi(statement.substr(statement.find("pass") + 5))));
      } else if (word == "restart") {
        face.Restart(hand, now);
      } else {
        const auto arrow = statement.find('>');
        const Bytes request = Hex(statement.substr(0, arrow));
        const auto replies =
            face.Handle(hand, {request[0], {request.begin() + 1, request.end()}}, now);
        EXPECT_EQ(replies.empty() ? Bytes{} : replies[0].data, Hex(statement.substr(arrow + 1)))
            << script.about << ": " << statement;
      }
    }
  }
}

TEST(ServiceFaceTest, ExpectsTheChecksumThatGoesWithItsFirmware) {
  using Version = std::array<std::uint8_t, 4>;
  for (const Version& v : {Version{0, 9, 9}, {1, 0, 0, 9}, {15, 0, 1}, {15, 1}, {16}}) {
    EXPECT_EQ(SerialChecksum(v), UpdateChecksum::kXmodem) << int{v[0]};
  }
  for (const Version& v : {Version{1, 0, 1}, {1, 1}, {2}, {14, 1}, {15}}) {
    EXPECT_EQ(SerialChecksum(v), UpdateChecksum::kModbus) << int{v[0]};
  }
}

/// A hand with the id 1 on a bus, and a host beside it. A frame that isn't answered gives no bytes.
struct HandOnCan {
  explicit HandOnCan(const ModelRow& model) { bus.Add({model, 1}); }

  Bytes Send(std::uint32_t id, const Bytes& data) const {
    Frame frame{id, static_cast<std::uint8_t>(data.size()), {}};
    std::copy(data.begin(), data.end(), frame.data.begin());
    EXPECT_TRUE(port->Send(frame));
    const auto reply = port->Receive({});
    if (!reply) return {};
    EXPECT_EQ(reply->id == 9, id == 9);
    return {reply->data.begin(), reply->data.begin() + reply->len};
  }
  Bytes Send(std::uint32_t id, const char* data) const { return Send(id, Hex(data)); }
  Bytes Ask(const char* command) const { return Send(9, command); }

  ManualClock clock;
  VirtualBus bus{clock};
  std::unique_ptr<VirtualBus::Port> port = bus.Open();
};

TEST(ServiceOnCanTest, FramesArePaddedToLengthsThatCanFdHas) {
  EXPECT_EQ(HandOnCan(kBrisa).Ask("08 0010*10"), Hex("08 0010*10 00*43"));
  const HandOnCan lumen(kLumen);
  EXPECT_EQ(lumen.Ask("32 00*50"), Hex("32 0010*4 00*23"));
  for (const char* ignored : {"", "12", "7E", "F0 00*63"}) EXPECT_EQ(lumen.Ask(ignored), Bytes{});
}

TEST(ServiceOnCanTest, WhatWasSavedComesBackAfterEveryKindOfRestart) {
  for (const std::uint32_t request : {0U, 9U, 0x04F10181U}) {
    const bool is_brisa = request == 0;
    HandOnCan on(is_brisa ? kBrisa : kLumen);
    on.bus.WithHand(0, [](SimulatedHand& hand) { hand.JointMotor(3).SetFault(kMotorException); });
    const auto set = [&](std::initializer_list<const char*> commands) {
      for (const char* command : commands) EXPECT_EQ(on.Ask(command).at(1), 1) << command;
      std::vector<Bytes> state{on.Send(0x02030101, ""), on.Send(0x01100101, "")};
      for (const char* query : {"30", "07 02", "C2", "0D"}) state.push_back(on.Ask(query));
      return state;
    };
    const auto saved = set({"03 026400", "1C 020008", "25 02BC02", "15 0105", "C1 78*19", "05"});
    EXPECT_EQ(saved.back(), Hex(is_brisa ? "0D 0800" : "0D 3F00"));
    const auto lost = set({"03 020000", "1D", "25 02BD02", "15 0104", "C1 00*19", "0E", "01 00"});
    for (std::size_t i = 0; i < saved.size(); ++i) EXPECT_NE(lost[i], saved[i]) << i;
    if (is_brisa) on.bus.Restart(0);
    if (!is_brisa) on.Send(request, "F1 04");
    EXPECT_EQ(on.Ask("02"), Bytes{});
    on.clock.Advance(std::chrono::seconds(2));
    EXPECT_EQ(set({"02"}), saved);
  }
}

TEST(ServiceOnCanTest, BothProtocolsSeeTheSameMotorsAndTheSameId) {
  HandOnCan on(kLumen);
  on.Send(0x02030181, "2003");
  EXPECT_EQ(on.bus.Settings(0).axes[1].current, 0x320);
  for (const char* command : {"05", "04 AA01"}) on.Ask(command);
  EXPECT_EQ(on.Send(0x02030101, ""), Bytes{});
  EXPECT_EQ(on.Send(0x0203012A, ""), Hex("2003"));
  on.bus.Restart(0);
  on.clock.Advance(std::chrono::seconds(2));
  EXPECT_EQ(on.Send(0x02030101, ""), Hex("2003"));
  on.Send(0x01020181, "05");
  on.bus.Restart(0);
  EXPECT_EQ(on.bus.Settings(0).device_id, 5);
}

TEST(ServiceOnCanTest, TakesAnImageInFramesOf63Bytes) {
  HandOnCan on(kBrisa);
  const Bytes image = test::FirmwareBytes(4096);
  const auto send = [&](std::uint8_t packet, unsigned spoilt) {
    const auto at = image.begin() + packet * 2048;
    const unsigned crc = Crc16Modbus(&*at, 2048) ^ spoilt;
    const auto low = static_cast<std::uint8_t>(crc);
    on.Send(9, {0xF1, 2, packet, 0, low, static_cast<std::uint8_t>(crc >> 8)});
    on.Ask("F0 FF*47");  // Too short unless it is the last of its packet.
    Bytes reply;
    for (std::ptrdiff_t first = 0; first < 2048; first += 63) {
      EXPECT_EQ(reply, Bytes{});
      Bytes data{0xF0};
      data.insert(data.end(), at + first, at + std::min<std::ptrdiff_t>(first + 63, 2048));
      reply = on.Send(9, data);
    }
    return reply;
  };
  EXPECT_EQ(on.Ask("F1 01 A00F0000 0200"), Hex("F2 01 00*4"));
  EXPECT_EQ(send(0, 1), Hex("F2 02 01 00*3"));
  EXPECT_EQ(send(0, 0), Hex("F2 02 00*4"));
  EXPECT_EQ(send(1, 0), Hex("F2 02 00*4"));
  for (const char* request : {"F1 03", "F1 04"}) EXPECT_EQ(on.Ask(request).size(), 6U);
  on.bus.WithHand(0, [&](SimulatedHand& hand) {
    EXPECT_EQ(hand.Firmware().InstalledImage(), Bytes(image.begin(), image.begin() + 4000));
  });
}

constexpr const char* kAsk = "EEAA 0100 01 02 9602";
constexpr const char* kPower = "EEAA 0100 02 02 01 33FF ";
constexpr const char* kForeign = "EEAA 0200 02 02 FE 110F ";
constexpr const char* kUpload = "EEAA 0100 3D 29 001000000000*10 4A47 ";

/// A hand behind a link in a folder of its own, and a host that has the port open.
class SerialHandTest : public testing::Test {
 public:
  ~SerialHandTest() override {
    close(port_);
    fs::remove_all(folder_);
  }

 protected:
  SerialHandTest() { Open(); }

  static std::string MakeFolder() {
    std::string name = (fs::temp_directory_path() / "korvane-hand-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp");
    return name;
  }

  void Open() {
    if (port_ >= 0) close(port_);
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
  void ExchangeForNothing(const std::string& sent) {
    const auto before = device_.Statistics().from_host;
    Write(sent);
    while (device_.Statistics().from_host == before) std::this_thread::yield();
  }

  const std::string folder_ = MakeFolder();
  const std::string link_ = folder_ + "/port";
  ManualClock clock_;
  SerialHand device_{{kBrisa, 1}, link_, clock_};
  int port_ = -1;
};

TEST_F(SerialHandTest, AnswersFramesForItThatHaveTheRightTrailer) {
  Write("00EE EEAAFF EEAA 0100 01 09 5555");           // Noise, and no checksum.
  Write("EEAA 0100 01 09 CF27 EEAA 0200 01 09 2128");  // The wrong kind, another hand.
  Write("EEAA 0100 08 F1 01 00080000 0100 FFED");      // An upgrade must have none.
  Exchange(kAsk, kPower);
  Exchange("EEAA FF07 01 09 7A0B", "EEAA 0100 15 09 0010*10 6A84");
  for (const std::uint8_t byte : Hex(kAsk)) ASSERT_EQ(write(port_, &byte, 1), 1);
  Exchange(std::string(kAsk) + " " + kAsk, std::string(kPower) + kPower + kPower);
  EXPECT_EQ(device_.Statistics().other_id, 1U);
}

TEST_F(SerialHandTest, UploadsOnItsPeriod) {
  Exchange("EEAA 0100 03 28 3200 854A", "EEAA 0100 02 28 01 1E16");
  for (int i = 0; i < 2; ++i) {
    clock_.Advance(milliseconds(50));
    Exchange("", kUpload);
  }
}

TEST_F(SerialHandTest, TakesNewFirmwareAndIsSilentUntilItRunsIt) {
  const std::string request = "EEAA 0100 06 F1 ";
  const std::string reply = "EEAA 0100 06 F2 ";
  Exchange("EEAA 0100 08 F1 01 00080000 0100 5555", reply + "01 00*4 2C87");
  Write(request + "02 0000 F4FB 6F26");
  for (int i = 0; i < 31; ++i) Write("EEAA 0100 42 F0 00 A5*64 F0A8");
  Exchange("EEAA 0100 42 F0 00 A5*64 F0A8", reply + "02 00*4 FE69");
  Exchange(request + "03 00*4 4F0D", reply + "03 00*4 AFC3");
  Exchange(request + "04 00*4 9B6A", reply + "04 00*4 7BA4");
  ExchangeForNothing(kAsk);
  clock_.Advance(std::chrono::seconds(2));
  Exchange("EEAA 0100 01 CD 352A", "EEAA 0100 0B CD 020000 010100 010000 0A F5C7");
  Write(request + "03 00*4 4F0D");  // The new firmware expects the other checksum.
  Exchange(request + "03 00*4 79DC", reply + "03 01 00*3 7813");
}

TEST_F(SerialHandTest, SpoilsRepliesAsItIsTold) {
  const std::string power = kPower;
  const auto spoil = [&](auto set) {
    SerialFaults faults;
    set(faults);
    device_.SetFaults(faults);
  };
  spoil([](SerialFaults& f) { f.duplicate = f.foreign = 1; });
  Exchange(kAsk, kForeign + power + power);
  spoil([](SerialFaults& f) { f.loss = f.foreign = 1; });
  Exchange(kAsk, kForeign);
  spoil([](SerialFaults& f) { f.bad_checksum = 1, f.merge = true; });
  Exchange(kAsk, std::string("EEAA 0100 02 02 01 3300") + kUpload);
  spoil([](SerialFaults& f) { f.silent_after = 0; });
  ExchangeForNothing(kAsk);
  spoil([](SerialFaults& f) { f.delay = f.split = milliseconds(1); });
  ExchangeForNothing(kAsk);
  clock_.Advance(milliseconds(4));
  Exchange("", "EEAA 0100");
  clock_.Advance(milliseconds(5));
  Exchange("", "02 02 01 33FF");
  spoil([](SerialFaults& f) { f.junk = 1; });
  Write(kAsk);
  EXPECT_NE(Read(1), Hex("EE"));
  while (Read(1) != Hex("EE")) {
  }
  Exchange("", power.substr(2));
}

TEST_F(SerialHandTest, KeepsItsPathFromOnePlugToTheNext) {
  device_.Unplug();
  EXPECT_FALSE(fs::is_symlink(link_));
  EXPECT_TRUE(Read(1).empty());
  EXPECT_LT(write(port_, "x", 1), 0);
  device_.Plug();
  Open();
  SerialFaults faults;
  faults.unplug_after = 1;
  faults.replug_after = milliseconds(500);
  device_.SetFaults(faults);
  Write(kAsk);
  EXPECT_TRUE(Read(1).empty());
  clock_.Advance(milliseconds(500));
  while (!fs::exists(link_)) std::this_thread::yield();
  Open();
  Exchange(kAsk, kPower);
}

TEST_F(SerialHandTest, ReplacesALinkThatLeadsNowhereAndNothingElse) {
  const std::string other = folder_ + "/other";
  fs::create_symlink(folder_ + "/nothing", other);
  {
    const SerialHand second({kBrisa, 2}, other);
    EXPECT_EQ(fs::read_symlink(other), second.Device());
    EXPECT_THROW(SerialHand({kBrisa, 3}, other), std::runtime_error);
  }
  EXPECT_FALSE(fs::is_symlink(other));
  fs::create_directory(other);
  EXPECT_THROW(SerialHand({kBrisa, 3}, other), std::runtime_error);
  EXPECT_TRUE(fs::is_directory(other));
}

}  // namespace
}  // namespace talvera::korvane::sim
