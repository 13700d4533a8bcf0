#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "korvane_brisa.h"
#include "support/capture.h"
#include "support/patient_link.h"
#include "support/process_resources.h"
#include "support/simulator_process.h"
#include "util/bytes.h"

// Drives the stand-in libraries as a closed library is driven: by the adapters of the library,
// which find what the test has loaded, and by byte offsets for what no adapter of ours does.
namespace talvera::korvane {
namespace {

using std::uint32_t;
using std::uint8_t;
using test::SimulatorProcess;
using testing::Each;
using testing::HasSubstr;
using testing::Lt;
using U32 = uint32_t;
using Results = std::vector<uint32_t>;

constexpr uint32_t kType = 33;
constexpr std::size_t kRecord = 80;

/// What dlsym found, as a pointer to whatever function it is taken for.
struct Symbol {
  template <class Function>
  operator Function*() const {
    return reinterpret_cast<Function*>(at);
  }
  void* at;
};

struct Library {
  explicit Library(const char* name)
      : handle(dlopen((std::string(KORVANE_STANDIN_DIR "/") + name).c_str(), RTLD_NOW)) {}
  Symbol operator[](const char* name) const { return {dlsym(handle, name)}; }
  void* handle;
};

struct Usbcanfd {
  Library library{"libusbcanfd.so"};
  U32 (*open)(U32, U32, U32) = library["VCI_OpenDevice"];
  U32 (*close)(U32, U32) = library["VCI_CloseDevice"];
  U32 (*info)(U32, U32, void*) = library["VCI_ReadBoardInfo"];
  U32 (*init)(U32, U32, U32, void*) = library["VCI_InitCAN"];
  U32 (*reference)(U32, U32, U32, U32, void*) = library["VCI_SetReference"];
  U32 (*start)(U32, U32, U32) = library["VCI_StartCAN"];
  U32 (*reset)(U32, U32, U32) = library["VCI_ResetCAN"];
  U32 (*transmit)(U32, U32, U32, void*, U32) = library["VCI_TransmitFD"];
  U32 (*receive)(U32, U32, U32, void*, U32, int) = library["VCI_ReceiveFD"];
};

struct Canbus {
  Library library{"libcanbus.so"};
  int (*scan)() = library["CAN_ScanDevice"];
  int (*open)(int, int) = library["CAN_OpenDevice"];
  int (*close)(int, int) = library["CAN_CloseDevice"];
  int (*info)(int, void*) = library["CAN_ReadDevInfo"];
  int (*clock)(int) = library["CAN_GetDevPlck"];
  int (*init)(int, int, void*) = library["CANFD_Init"];
  int (*transmit)(int, int, void*, int, int) = library["CANFD_Transmit"];
  int (*receive)(int, int, void*, int, int) = library["CANFD_Receive"];
};

// 60 MHz; 1 Mbit/s by 47 + 12 + 1 quanta, 5 Mbit/s by 8 + 3 + 1.
constexpr std::array<uint8_t, 20> kZlgConfig{0x00, 0x87, 0x93, 0x03, 0, 0, 0, 0, 46, 11,
                                             3,    0,    0,    0,    7, 2, 1, 0, 0,  0};
// 1 and 5 Mbit/s at 80 MHz; prescaler 2 with 40 and 8 quanta.
constexpr std::array<uint8_t, 20> kHcanConfig{0x40, 0x42, 0x0F, 0x00, 0x40, 0x4B, 0x4C, 0x00, 2, 0,
                                              31,   8,    5,    2,    5,    2,    1,    1,    0, 1};

std::vector<uint8_t> ZlgFrame(uint32_t id, uint8_t length = 64) {
  std::vector<uint8_t> record(kRecord);
  StoreU32(&record[4], id);
  StoreU32(&record[8], 1U << 4 | 1U << 11 | (id > 0x7FF ? 1U << 9 : 0U));
  record[15] = length;
  return record;
}

std::vector<uint8_t> HcanFrame(uint32_t id, uint8_t code = 15) {
  std::vector<uint8_t> record(kRecord);
  StoreU32(record.data(), id | 0x80000000U);  // the identifiers of this test are extended
  record[8] = 12;
  record[9] = code;
  record[10] = 1;
  return record;
}

class StandinTest : public testing::Test {
 protected:
  StandinTest() {
    mkdtemp(dir_.data());
    socket_ = dir_ + "/adapters.sock";
    setenv("KORVANE_SIM_SOCKET", socket_.c_str(), 1);
  }
  void TearDown() override {
    const bool clean = !simulator_ || simulator_->End(SIGTERM) == 0;
    EXPECT_TRUE(clean) << "a simulator that a sanitizer stopped doesn't end with 0";
    std::filesystem::remove_all(dir_);
  }

  std::unique_ptr<SimulatorProcess> Start(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--adapters", "--socket", socket_});
    return std::make_unique<SimulatorProcess>(arguments);
  }

  void Serve(const std::vector<std::string>& arguments = {"--hand", "brisa:0x01"}) {
    simulator_ = Start(arguments);
    ASSERT_EQ(simulator_->ReadLine(), "korvane-sim: ready at " + socket_);
  }

  void StartZlg(uint32_t channel) {
    auto config = kZlgConfig;
    ASSERT_EQ(zlg_.init(kType, 0, channel, config.data()), 1U);
    ASSERT_EQ(zlg_.start(kType, 0, channel), 1U);
  }

  void StartHcan(int channel) {
    auto config = kHcanConfig;
    ASSERT_EQ(hcan_.open(0, channel), 0);
    ASSERT_EQ(hcan_.init(0, channel, config.data()), 0);
  }

  /// The identifier of the one reply to a read, 0 if none comes.
  uint32_t AskZlg(uint32_t channel, uint32_t id) {
    auto request = ZlgFrame(id);
    if (zlg_.transmit(kType, 0, channel, request.data(), 1) != 1) return 0;
    if (zlg_.receive(kType, 0, channel, buffer_.data(), 256, 5000) != 1) return 0;
    return LoadU32(buffer_.data() + 4);
  }

  std::string dir_ = std::filesystem::temp_directory_path() / "standin-XXXXXX";
  std::string socket_;
  std::unique_ptr<SimulatorProcess> simulator_;
  Usbcanfd zlg_;
  Canbus hcan_;
  std::vector<uint8_t> buffer_ = std::vector<uint8_t>(256 * kRecord);
};

TEST_F(StandinTest, BothCarryHandsOnEachChannelThroughTheAdaptersOfTheLibrary) {
  Serve({"--adapter-count", "2", "--hand", "brisa:1@1.0", "--hand", "brisa:1@1.1"});
  const test::StreamCapture out(stdout);
  for (const bool zlg : {true, false}) {
    const auto open = [zlg](std::uint8_t channel) {
      return zlg ? KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, "SIM-ZLG-0001", channel)
                 : KorvaneBrisa::createHandByHcan(HandType::LEFT, 1, "SIM-HCAN-0001", channel);
    };
    // On HCAN the second hand of a device opens no channel.
    std::vector<std::unique_ptr<KorvaneBrisa>> hands;
    if (zlg) hands.push_back(open(0));
    hands.push_back(open(1));
    short threshold = 0;
    for (const auto& hand : hands) {
      test::BePatient(*hand);
      hand->SetCurrentThreshold(1, threshold += 11);
    }
    threshold = 0;
    for (const auto& hand : hands) {
      EXPECT_EQ(hand->GetCurrentThreshold(1), threshold += 11) << "each channel is its own bus";
      EXPECT_EQ(hand->GetAllJointMotorPosi().size(), 10U);
      EXPECT_EQ(hand->GetVendorInfo().active_dof, 10);
    }
  }
  EXPECT_THAT(out.Text(), HasSubstr("Found device 1 (type=33): Simulated"));
  EXPECT_THAT(out.Text(), HasSubstr(", SN=SIM-ZLG-0001, Channels=2\n"));
  EXPECT_THAT(out.Text(), HasSubstr("[HCAN] Scanned 2 device(s)\n"));
  EXPECT_THAT(out.Text(), HasSubstr(", SN=SIM-HCAN-0001, Channels=2\n"));
}

TEST_F(StandinTest, UsbcanfdRefusesWhatARealAdapterWould) {
  Serve();
  auto config = kZlgConfig;
  auto slow = kZlgConfig;
  slow[8] = 30;
  auto batch = ZlgFrame(0x03130101);
  const auto bad = ZlgFrame(0x03130101, 65);
  batch.insert(batch.end(), bad.begin(), bad.end());
  EXPECT_THAT(
      (Results{zlg_.open(41, 0, 0), zlg_.open(kType, 1, 0), zlg_.info(kType, 0, buffer_.data()),
               zlg_.start(kType, 0, 0), zlg_.close(kType, 0)}),
      Each(0U))
      << "not open";
  EXPECT_EQ(zlg_.open(kType, 0, 0), 1U);
  EXPECT_THAT((Results{zlg_.open(kType, 0, 0), zlg_.start(kType, 0, 0),
                       zlg_.init(kType, 0, 2, config.data()), zlg_.init(kType, 0, 0, nullptr),
                       zlg_.init(kType, 0, 0, slow.data())}),
              Each(0U))
      << "open already, not initialised";
  EXPECT_EQ(zlg_.init(kType, 0, 0, config.data()), 1U);
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, batch.data(), 1), 0U) << "not started";
  EXPECT_EQ(zlg_.start(kType, 0, 0), 1U);
  EXPECT_THAT(
      (Results{zlg_.reference(kType, 0, 0, 0x99, config.data()),
               zlg_.transmit(kType, 0, 0, nullptr, 1), zlg_.receive(kType, 0, 0, nullptr, 1, 0)}),
      Each(0U));
  // Of a batch, the frames up to the first bad one are taken.
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, batch.data(), 2), 1U);
  // Its reply must not be taken for that to a later request.
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 5000), 1U);

  // A closed device comes back with InitCAN alone.
  EXPECT_EQ(zlg_.reset(kType, 0, 0), 1U);
  EXPECT_EQ(zlg_.close(kType, 0), 1U);
  StartZlg(1);
  StartZlg(0);
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 0), 0U);
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  EXPECT_EQ(LoadU32(&buffer_[8]) & 0xAF0, 0xA10U);  // CAN FD, extended, rate switched.
  EXPECT_EQ(zlg_.close(kType, 0), 1U);
}

TEST_F(StandinTest, CanbusRefusesWhatARealAdapterWould) {
  Serve();
  auto config = kHcanConfig;
  auto fast = kHcanConfig;
  fast[13] = 1;  // 10 Mbit/s.
  auto frame = HcanFrame(0x00130101);
  auto bad = HcanFrame(0x00130101, 16);
  EXPECT_THAT((std::vector{hcan_.open(1, 0), hcan_.open(-1, 0), hcan_.open(0, 2),
                           hcan_.info(0, buffer_.data()), hcan_.close(0, 0)}),
              Each(Lt(0)))
      << "not open";
  ASSERT_EQ(hcan_.open(0, 0), 0);
  EXPECT_THAT((std::vector{hcan_.open(0, 0), hcan_.init(0, 0, fast.data()),
                           hcan_.init(0, 1, config.data())}),
              Each(Lt(0)))
      << "open already, or never";
  EXPECT_EQ(hcan_.init(0, 0, config.data()), 0);
  EXPECT_THAT((std::vector{hcan_.transmit(0, 1, frame.data(), 1, 100),
                           hcan_.transmit(0, 0, bad.data(), 1, 100),
                           hcan_.transmit(0, 0, frame.data(), -1, 100)}),
              Each(Lt(0)));
  EXPECT_EQ(hcan_.receive(0, 0, buffer_.data(), 256, 0), 0);
  EXPECT_EQ(hcan_.close(0, 0), 0);
}

TEST_F(StandinTest, CanbusTellsTheClockThatWasAskedFor) {
  Serve({"--clock-hz", "36000000"});
  EXPECT_LT(hcan_.clock(0), 0);
  ASSERT_EQ(hcan_.open(0, 0), 0);
  EXPECT_EQ(hcan_.clock(0), 36000000);
  auto config = kHcanConfig;
  EXPECT_LT(hcan_.init(0, 0, config.data()), 0);  // Made for 80 MHz.
  hcan_.close(0, 0);
}

TEST_F(StandinTest, OneThreadReceivesWhileAnotherTransmits) {
  Serve();
  StartZlg(0);
  constexpr uint32_t kFrames = 1000;  // More than a socket buffer holds.
  std::thread sender([&] {
    auto frame = ZlgFrame(0x03130101);
    for (uint32_t i = 0; i < kFrames; ++i) zlg_.transmit(kType, 0, 0, frame.data(), 1);
  });
  uint32_t received = 0;
  for (uint32_t came = 1; received < kFrames && came > 0; received += came) {
    came = zlg_.receive(kType, 0, 0, buffer_.data(), 4, 10000);
    EXPECT_LE(came, 4U) << "what finds no room waits";
  }
  sender.join();
  EXPECT_EQ(received, kFrames);
  zlg_.close(kType, 0);
}

TEST_F(StandinTest, OpeningAndClosingLeavesNoDescriptors) {
  Serve();
  const std::size_t before = test::CountEntries("/proc/self/fd");
  for (int i = 0; i < 300; ++i) {
    StartZlg(0);
    ASSERT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
    ASSERT_EQ(zlg_.close(kType, 0), 1U);
    StartHcan(1);
    ASSERT_EQ(hcan_.close(0, 1), 0);
  }
  EXPECT_EQ(test::CountEntries("/proc/self/fd"), before);
}

TEST_F(StandinTest, WhenTheSimulatorDiesEverythingFailsAndANewOneIsFound) {
  EXPECT_EQ(zlg_.open(kType, 0, 0), 0U);  // None yet.
  EXPECT_LE(hcan_.scan(), 0);
  Serve();
  StartZlg(0);
  StartHcan(1);
  std::thread waiting([&] {
    // Ends at once, long before its time, when the connection breaks.
    std::vector<uint8_t> frames(kRecord);
    EXPECT_LE(hcan_.receive(0, 1, frames.data(), 1, 600000), 0);
  });
  EXPECT_EQ(simulator_->End(SIGKILL), -1);
  simulator_.reset();
  waiting.join();
  auto frame = ZlgFrame(0x03130101);
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, frame.data(), 1), 0U);
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 5000), 0U);
  frame = HcanFrame(0x03130101);
  EXPECT_LT(hcan_.transmit(0, 1, frame.data(), 1, 100), 0);
  EXPECT_LE(hcan_.scan(), 0);
  EXPECT_TRUE(std::filesystem::exists(socket_));

  Serve();  // Takes the place of the stale socket.
  StartZlg(0);
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  zlg_.close(kType, 0);
  hcan_.close(0, 1);
}

TEST_F(StandinTest, TheSimulatorEndsCleanlyAndDoesNotTakeALivingOnesPlace) {
  Serve();
  const auto second = Start({});
  EXPECT_NE(second->ReadLine().find("another korvane-sim serves " + socket_), std::string::npos);
  EXPECT_EQ(second->Wait(), 1);
  StartZlg(0);
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  EXPECT_EQ(simulator_->End(SIGTERM), 0);
  EXPECT_EQ(simulator_->ReadLine(),
            "korvane-sim: stopped after 1 frames from hosts and 1 from hands");
  simulator_.reset();
  EXPECT_FALSE(std::filesystem::exists(socket_));
  zlg_.close(kType, 0);
}

TEST_F(StandinTest, TheSimulatorServesAdaptersUnlessItHasASerialHandOnly) {
  const std::string serial = "brisa@" + dir_ + "/hand";
  const std::pair<std::vector<std::string>, bool> cases[] = {
      {{}, true}, {{"--serial", serial, "--hand", "lumen:4"}, true}, {{"--serial", serial}, false}};
  for (const auto& [arguments, has_adapters] : cases) {
    SimulatorProcess simulator(arguments);
    std::string told = simulator.ReadLine();
    EXPECT_EQ(simulator.End(SIGTERM), 0) << told;
    for (auto line = simulator.ReadLine(); !line.empty(); line = simulator.ReadLine()) told += line;
    EXPECT_EQ(told.find("ready at " + socket_) != std::string::npos, has_adapters) << told;
  }
}

TEST_F(StandinTest, AWrongOptionIsToldWithWhatWouldBeRight) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases{
      {{"--los", "0.1"}, "did you mean --loss?"},
      {{"--loss", "nan"}, "nan is no number"},
      {{"--hand", "brisa:0200"}, "no id of 1 to 127"},
      {{"--loss", "2"}, "range 0"},
      {{"--duplicate", "2"}, "--duplicate: "},
      {{"--reorder", "2"}, "--reorder: "},
      {{"--foreign", "2"}, "--foreign: "},
      {{"--delay-ms", "-1"}, "--delay-ms: "},
      {{"--jitter-ms", "-1"}, "--jitter-ms: "},
      {{"--silent-after", "x"}, "convert: --silent-after"},
      {{"--seed", "x"}, "convert: --seed"},
      {{"--adapter-count", "9"}, "--adapter-count: "},
      {{"--channels", "17"}, "--channels: "},
      {{"--clock-hz", "x"}, "--clock-hz: "},
      {{"--serial-junk", "2"}, "--serial-junk: "},
      {{"--serial-bad-crc", "2"}, "--serial-bad-crc: "},
      {{"--serial-split-ms", "-1"}, "--serial-split-ms: "},
      {{"--serial-unplug-after", "x"}, "convert: --serial-unplug-after"},
      {{"--serial-replug-ms", "-1"}, "--serial-replug-ms: "},
      {{"--crc", "crc32"}, "--crc: "},
      {{"--restart-ms", "-1"}, "--restart-ms: "},
      {{"--firmware-version", "1.0"}, "write 1.0.0 or 15.0.0.1"},
      {{"--firmware-version", "1.0.256"}, "write 1.0.0 or 15.0.0.1"},
      {{"--update-status", "packet"}, "write packet:5 or packet:5@2"},
      {{"--update-lose", "packet:5"}, "write packet or packet@2"},
      {{"--update-duplicate", "all"}, "write packet or packet@2"},
      {{"--update-reset", "all"}, "write packet or packet@2"},
      {{"--hand", "foo:1"}, "there are brisa"},
      {{"--hand", "brisa:128"}, "1 to 127"},
      {{"--hand", "brisa:+1"}, "1 to 127"},
      {{"--hand", "brisa:1@0.2"}, "there are 0.0 to 0.1"},
      {{"--hand", "brisa:1", "--hand", "brisa:1@0.0"}, "two hands with id 1"},
  };
  for (const auto& [arguments, expected] : cases) {
    const auto simulator = Start(arguments);
    EXPECT_NE(simulator->ReadLine().find(expected), std::string::npos) << arguments.back();
    EXPECT_EQ(simulator->Wait(), 2) << arguments.back();
  }
}

}  // namespace
}  // namespace talvera::korvane
