#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/simulator_process.h"

// Drives the stand-in libraries as a closed library is driven: by dlopen and byte offsets.
namespace {

using std::uint32_t;
using std::uint8_t;
using talvera::korvane::test::SimulatorProcess;

constexpr uint32_t kType = 33;
constexpr std::size_t kRecord = 80;

std::string MakeTempDir() {
  std::string name = (std::filesystem::temp_directory_path() / "standin-XXXXXX").string();
  return mkdtemp(name.data()) == nullptr ? std::string() : name;
}

class Library {
 public:
  explicit Library(const char* name)
      : handle_(dlopen((std::string(KORVANE_STANDIN_DIR "/") + name).c_str(), RTLD_NOW)) {}

  template <class Function>
  Function* Get(const char* name) const {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }

 private:
  void* handle_;
};

struct Usbcanfd {
  using Device = uint32_t(uint32_t, uint32_t);
  using Channel = uint32_t(uint32_t, uint32_t, uint32_t);

  Library library{"libusbcanfd.so"};
  Channel* open = library.Get<Channel>("VCI_OpenDevice");
  Device* close = library.Get<Device>("VCI_CloseDevice");
  uint32_t (*info)(uint32_t, uint32_t,
                   void*) = library.Get<uint32_t(uint32_t, uint32_t, void*)>("VCI_ReadBoardInfo");
  uint32_t (*init)(uint32_t, uint32_t, uint32_t, void*) =
      library.Get<uint32_t(uint32_t, uint32_t, uint32_t, void*)>("VCI_InitCAN");
  uint32_t (*reference)(uint32_t, uint32_t, uint32_t, uint32_t, void*) =
      library.Get<uint32_t(uint32_t, uint32_t, uint32_t, uint32_t, void*)>("VCI_SetReference");
  Channel* start = library.Get<Channel>("VCI_StartCAN");
  Channel* reset = library.Get<Channel>("VCI_ResetCAN");
  uint32_t (*transmit)(uint32_t, uint32_t, uint32_t, void*, uint32_t) =
      library.Get<uint32_t(uint32_t, uint32_t, uint32_t, void*, uint32_t)>("VCI_TransmitFD");
  uint32_t (*receive)(uint32_t, uint32_t, uint32_t, void*, uint32_t, int) =
      library.Get<uint32_t(uint32_t, uint32_t, uint32_t, void*, uint32_t, int)>("VCI_ReceiveFD");
};

struct Canbus {
  using Channel = int(int, int);
  using Batch = int(int, int, void*, int, int);

  Library library{"libcanbus.so"};
  int (*scan)() = library.Get<int()>("CAN_ScanDevice");
  Channel* open = library.Get<Channel>("CAN_OpenDevice");
  Channel* close = library.Get<Channel>("CAN_CloseDevice");
  int (*info)(int, void*) = library.Get<int(int, void*)>("CAN_ReadDevInfo");
  int (*clock)(int) = library.Get<int(int)>("CAN_GetDevPlck");
  int (*init)(int, int, void*) = library.Get<int(int, int, void*)>("CANFD_Init");
  Batch* transmit = library.Get<Batch>("CANFD_Transmit");
  Batch* receive = library.Get<Batch>("CANFD_Receive");
};

// 60 MHz; 1 Mbit/s by 47 + 12 + 1 quanta, 5 Mbit/s by 8 + 3 + 1.
std::array<uint8_t, 20> ZlgConfig() {
  return {0x00, 0x87, 0x93, 0x03, 0, 0, 0, 0, 46, 11, 3, 0, 0, 0, 7, 2, 1, 0, 0, 0};
}

// 1 and 5 Mbit/s at 80 MHz; prescaler 2 with 40 and 8 quanta.
std::array<uint8_t, 20> HcanConfig() {
  return {0x40, 0x42, 0x0F, 0x00, 0x40, 0x4B, 0x4C, 0x00, 2, 0, 31, 8, 5, 2, 5, 2, 1, 1, 0, 1};
}

uint32_t Word(const uint8_t* at) {
  return at[0] | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
         static_cast<uint32_t>(at[3]) << 24;
}

void SetWord(uint8_t* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>(value >> 8 * i);
}

std::vector<uint8_t> ZlgFrame(uint32_t id, uint8_t length = 64) {
  std::vector<uint8_t> record(kRecord);
  SetWord(record.data() + 4, id);
  SetWord(record.data() + 8, 1U << 4 | 1U << 11 | (id > 0x7FF ? 1U << 9 : 0U));
  record[15] = length;
  return record;
}

std::vector<uint8_t> HcanFrame(uint32_t id, uint8_t code = 15) {
  std::vector<uint8_t> record(kRecord);
  SetWord(record.data(), id | (id > 0x7FF ? 0x80000000U : 0U));
  record[8] = 12;
  record[9] = code;
  record[10] = 1;
  return record;
}

std::size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

class StandinTest : public testing::Test {
 protected:
  StandinTest() { setenv("KORVANE_SIM_SOCKET", socket_.c_str(), 1); }
  void TearDown() override {
    // A simulator that a sanitizer stopped doesn't end with 0.
    if (simulator_) {
      EXPECT_EQ(simulator_->End(SIGTERM), 0);
    }
    std::filesystem::remove_all(dir_);
  }

  std::unique_ptr<SimulatorProcess> Start(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"--adapters", "--socket", socket_});
    return std::make_unique<SimulatorProcess>(arguments);
  }

  void Serve(const std::vector<std::string>& arguments) {
    simulator_ = Start(arguments);
    ASSERT_EQ(simulator_->ReadLine(), "korvane-sim: ready at " + socket_);
  }

  void StartZlg(uint32_t channel) {
    auto config = ZlgConfig();
    ASSERT_EQ(zlg_.init(kType, 0, channel, config.data()), 1U);
    ASSERT_EQ(zlg_.start(kType, 0, channel), 1U);
  }

  void StartHcan(int channel) {
    auto config = HcanConfig();
    ASSERT_EQ(hcan_.open(0, channel), 0);
    ASSERT_EQ(hcan_.init(0, channel, config.data()), 0);
  }

  /// The identifier of the one reply to a read, 0 if none comes.
  uint32_t AskZlg(uint32_t channel, uint32_t id) {
    auto request = ZlgFrame(id);
    if (zlg_.transmit(kType, 0, channel, request.data(), 1) != 1) return 0;
    if (zlg_.receive(kType, 0, channel, buffer_.data(), 256, 5000) != 1) return 0;
    return Word(buffer_.data() + 4);
  }

  const std::string dir_ = MakeTempDir();
  const std::string socket_ = dir_ + "/adapters.sock";
  std::unique_ptr<SimulatorProcess> simulator_;
  Usbcanfd zlg_;
  Canbus hcan_;
  std::vector<uint8_t> buffer_ = std::vector<uint8_t>(256 * kRecord);
};

TEST_F(StandinTest, UsbcanfdCarriesFramesByItsRecords) {
  Serve({"--hand", "brisa:1", "--hand", "brisa:2@0.1"});
  EXPECT_EQ(zlg_.open(kType, 0, 0), 1U);
  ASSERT_EQ(zlg_.info(kType, 0, buffer_.data()), 1U);
  EXPECT_EQ(buffer_[10], 2);
  EXPECT_EQ(std::string(buffer_.begin() + 11, buffer_.begin() + 31), "SIM-ZLG-0000        ");
  EXPECT_EQ(std::string(buffer_.begin() + 31, buffer_.begin() + 40), "Simulated");

  StartZlg(0);
  StartZlg(1);
  int value = 1;
  for (const uint32_t command : {0x18U, 0x32U, 0x44U}) {
    EXPECT_EQ(zlg_.reference(kType, 0, 0, command, &value), 1U);
  }
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  EXPECT_EQ(Word(buffer_.data() + 8) & 0xAF0, 0xA10U);  // CAN FD, extended, rate switched.
  EXPECT_EQ(buffer_[15], 2);
  EXPECT_EQ(buffer_[16] | buffer_[17] << 8, 4096);
  EXPECT_EQ(AskZlg(1, 0x00020100), 0x00020102U);  // Each channel is a bus of its own.
  EXPECT_EQ(buffer_[14], 1);

  // Batches: the capacity holds and the rest stays.
  auto raw = ZlgFrame(0x00060101);
  ASSERT_EQ(zlg_.transmit(kType, 0, 0, raw.data(), 1), 1U);
  std::size_t frames = 0;
  while (frames < 10) {
    const uint32_t came = zlg_.receive(kType, 0, 0, buffer_.data(), 4, 5000);
    ASSERT_GE(came, 1U);
    ASSERT_LE(came, 4U);
    frames += came;
  }
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 0), 0U);
  EXPECT_EQ(zlg_.close(kType, 0), 1U);
}

TEST_F(StandinTest, UsbcanfdRefusesWhatARealAdapterWould) {
  Serve({"--hand", "brisa:1"});
  auto config = ZlgConfig();
  auto frame = ZlgFrame(0x03130101);
  EXPECT_EQ(zlg_.open(41, 0, 0), 0U);
  EXPECT_EQ(zlg_.open(kType, 1, 0), 0U);
  EXPECT_EQ(zlg_.info(kType, 0, buffer_.data()), 0U);  // Not open.
  EXPECT_EQ(zlg_.start(kType, 0, 0), 0U);
  EXPECT_EQ(zlg_.close(kType, 0), 0U);
  EXPECT_EQ(zlg_.open(kType, 0, 0), 1U);
  EXPECT_EQ(zlg_.open(kType, 0, 0), 0U);  // Open already.
  EXPECT_EQ(zlg_.start(kType, 0, 0), 0U);
  EXPECT_EQ(zlg_.init(kType, 0, 2, config.data()), 0U);
  EXPECT_EQ(zlg_.init(kType, 0, 0, nullptr), 0U);
  config[8] = 30;  // Another bit rate.
  EXPECT_EQ(zlg_.init(kType, 0, 0, config.data()), 0U);
  config = ZlgConfig();
  EXPECT_EQ(zlg_.init(kType, 0, 0, config.data()), 1U);
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, frame.data(), 1), 0U);  // Not started.
  EXPECT_EQ(zlg_.start(kType, 0, 0), 1U);
  EXPECT_EQ(zlg_.reference(kType, 0, 0, 0x99, config.data()), 0U);

  // Of a batch, the frames up to the first bad one are taken.
  auto batch = frame;
  auto bad = ZlgFrame(0x03130101, 65);
  batch.insert(batch.end(), bad.begin(), bad.end());
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, batch.data(), 2), 1U);
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, nullptr, 1), 0U);
  EXPECT_EQ(zlg_.receive(kType, 0, 0, nullptr, 1, 0), 0U);
  // Its reply must not be taken for that to a later request.
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 5000), 1U);

  // A closed device comes back with InitCAN alone.
  EXPECT_EQ(zlg_.reset(kType, 0, 0), 1U);
  EXPECT_EQ(zlg_.close(kType, 0), 1U);
  StartZlg(0);
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  EXPECT_EQ(zlg_.close(kType, 0), 1U);
}

TEST_F(StandinTest, CanbusCarriesFramesByItsRecords) {
  Serve({"--hand", "brisa:0x27@1.0", "--adapter-count", "2"});
  EXPECT_EQ(hcan_.scan(), 2);
  EXPECT_LT(hcan_.open(2, 0), 0);
  EXPECT_LT(hcan_.open(-1, 0), 0);
  EXPECT_LT(hcan_.open(1, 2), 0);
  EXPECT_LT(hcan_.info(1, buffer_.data()), 0);
  ASSERT_EQ(hcan_.open(1, 0), 0);
  EXPECT_LT(hcan_.open(1, 0), 0);
  ASSERT_EQ(hcan_.info(1, buffer_.data()), 0);
  EXPECT_EQ(std::string(buffer_.begin(), buffer_.begin() + 14), std::string("SIM-HCAN-0001\0", 14));
  EXPECT_EQ(std::string(buffer_.begin() + 32, buffer_.begin() + 41), "Simulated");
  EXPECT_EQ(buffer_[64], 2);
  EXPECT_EQ(hcan_.clock(1), 80000000);

  auto config = HcanConfig();
  config[13] = 1;
  EXPECT_LT(hcan_.init(1, 0, config.data()), 0);  // 10 Mbit/s.
  config = HcanConfig();
  EXPECT_LT(hcan_.init(1, 1, config.data()), 0);  // That channel was never opened.
  EXPECT_EQ(hcan_.init(1, 0, config.data()), 0);
  auto frame = HcanFrame(0x00130127);
  EXPECT_LT(hcan_.transmit(1, 1, frame.data(), 1, 100), 0);
  EXPECT_EQ(hcan_.transmit(1, 0, frame.data(), 1, 100), 1);
  ASSERT_EQ(hcan_.receive(1, 0, buffer_.data(), 256, 5000), 1);
  EXPECT_EQ(Word(buffer_.data()), 0x80130127U);
  EXPECT_EQ(buffer_[9], 11);  // 20 bytes.
  EXPECT_EQ(buffer_[16] | buffer_[17] << 8, 4096);
  auto bad = HcanFrame(0x00130127, 16);
  EXPECT_LT(hcan_.transmit(1, 0, bad.data(), 1, 100), 0);
  EXPECT_LT(hcan_.transmit(1, 0, frame.data(), -1, 100), 0);
  EXPECT_EQ(hcan_.receive(1, 0, buffer_.data(), 256, 0), 0);
  EXPECT_EQ(hcan_.close(1, 0), 0);
  EXPECT_LT(hcan_.close(1, 0), 0);
}

TEST_F(StandinTest, CanbusTellsTheClockThatWasAskedFor) {
  Serve({"--clock-hz", "36000000"});
  EXPECT_LT(hcan_.clock(0), 0);
  ASSERT_EQ(hcan_.open(0, 0), 0);
  EXPECT_EQ(hcan_.clock(0), 36000000);
  auto config = HcanConfig();
  EXPECT_LT(hcan_.init(0, 0, config.data()), 0);  // Made for 80 MHz.
  hcan_.close(0, 0);
}

TEST_F(StandinTest, OneThreadReceivesWhileAnotherTransmits) {
  Serve({"--hand", "brisa:1"});
  StartZlg(0);
  constexpr uint32_t kFrames = 1000;  // More than a socket buffer holds.
  std::thread sender([&] {
    auto frame = ZlgFrame(0x03130101);
    for (uint32_t i = 0; i < kFrames; ++i) zlg_.transmit(kType, 0, 0, frame.data(), 1);
  });
  uint32_t received = 0;
  while (received < kFrames) {
    const uint32_t came = zlg_.receive(kType, 0, 0, buffer_.data(), 256, 10000);
    if (came == 0) break;
    received += came;
  }
  sender.join();
  EXPECT_EQ(received, kFrames);
  zlg_.close(kType, 0);
}

TEST_F(StandinTest, OpeningAndClosingLeavesNoDescriptors) {
  Serve({"--hand", "brisa:1"});
  const std::size_t before = OpenDescriptors();
  for (int i = 0; i < 300; ++i) {
    StartZlg(0);
    ASSERT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
    ASSERT_EQ(zlg_.close(kType, 0), 1U);
    StartHcan(1);
    ASSERT_EQ(hcan_.close(0, 1), 0);
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

TEST_F(StandinTest, WhenTheSimulatorDiesEverythingFailsAndANewOneIsFound) {
  EXPECT_EQ(zlg_.open(kType, 0, 0), 0U);  // None yet.
  EXPECT_LE(hcan_.scan(), 0);
  Serve({"--hand", "brisa:1"});
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
  auto zlg_frame = ZlgFrame(0x03130101);
  auto hcan_frame = HcanFrame(0x03130101);
  EXPECT_EQ(zlg_.transmit(kType, 0, 0, zlg_frame.data(), 1), 0U);
  EXPECT_EQ(zlg_.receive(kType, 0, 0, buffer_.data(), 256, 5000), 0U);
  EXPECT_LT(hcan_.transmit(0, 1, hcan_frame.data(), 1, 100), 0);
  EXPECT_LE(hcan_.scan(), 0);
  EXPECT_TRUE(std::filesystem::exists(socket_));

  Serve({"--hand", "brisa:1"});  // Takes the place of the stale socket.
  StartZlg(0);
  EXPECT_EQ(AskZlg(0, 0x03130101), 0x03130101U);
  zlg_.close(kType, 0);
  hcan_.close(0, 1);
}

TEST_F(StandinTest, TheSimulatorEndsCleanlyAndDoesNotTakeALivingOnesPlace) {
  Serve({"--hand", "brisa:1"});
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

TEST_F(StandinTest, AWrongOptionIsToldWithWhatWouldBeRight) {
  const std::vector<std::pair<std::vector<std::string>, const char*>> cases{
      {{"--los", "0.1"}, "did you mean --loss?"},
      {{"--loss", "2"}, "range 0"},
      {{"--hand", "foo:1"}, "there are brisa"},
      {{"--hand", "brisa:128"}, "1 to 127"},
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
