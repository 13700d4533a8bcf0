#include "can/usb_can_adapter.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <limits>
#include <memory>
#include <thread>

#include "can/hcan_device.h"
#include "can/zlg_usbcanfd_device.h"
#include "support/allocation_hook.h"
#include "support/capture.h"
#include "support/fake_library.h"
#include "support/process_resources.h"
#include "util/bytes.h"

namespace talvera::korvane {
namespace {

using test::Bytes;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::size_t kRecordSize = 80;
/// CAN FD lengths by data length code, written down apart from the library's own.
const std::vector<std::uint8_t> kLengths = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

/// How a ZLG channel is set up once its device is open. `place` is type, index and channel.
std::string ZlgStart(const std::string& place) {
  const std::string reference = "; VCI_SetReference " + place;
  return "VCI_InitCAN " + place + reference + " 24 1" + reference + " 50 0" + reference +
         " 68 20; VCI_StartCAN " + place;
}

std::string HcanOpened(const std::string& place) {
  const std::string device = place.substr(0, place.find(' '));
  return "CAN_ScanDevice; CAN_OpenDevice " + place + "; CAN_GetDevPlck " + device +
         "; CANFD_Init " + place;
}

std::string ZlgOpened(const std::string& place) {
  const std::string device = place.substr(0, place.rfind(' '));
  return "VCI_OpenDevice " + device + "; VCI_ReadBoardInfo " + device + "; " + ZlgStart(place);
}

/// What was done and said during a step.
struct Told {
  std::string calls;
  std::string out;
  std::string err;
};

class AdapterTest : public testing::Test {
 protected:
  explicit AdapterTest(bool zlg) : zlg_(zlg), fake_(zlg ? test::fake_usbcanfd : test::fake_canbus) {
    Forget();
  }

  void Forget() {
    *fake_.operator->().state = {};
    HcanDevice::device_ref_count_.clear();
    CanfdDevices().canfd_device_info_cache.clear();
    CanfdDevices().cache_valid_ = false;
  }

  template <class T>
  T Pick(T zlg, T hcan) const {
    return zlg_ ? zlg : hcan;
  }
  std::string Pick(const std::string& zlg, const std::string& hcan) const {
    return zlg_ ? zlg : hcan;
  }

  /// `where` is an index or a serial number.
  template <class Where>
  std::unique_ptr<UsbCanAdapter> Make(const Where& where, std::uint8_t channel,
                                      std::uint8_t product = 0) const {
    if (zlg_) return std::make_unique<ZlgUsbcanfdDevice>(where, channel, product);
    return std::make_unique<HcanDevice>(where, channel, product);
  }

  std::string TakeCalls() { return std::exchange(fake_->calls, {}); }

  template <class Action>
  Told Run(Action&& action) {
    TakeCalls();
    const test::Streams streams = test::CaptureStreams(action);
    return {TakeCalls(), streams.out, streams.err};
  }

  template <class Where>
  std::pair<std::unique_ptr<UsbCanAdapter>, Told> Open(const Where& where, std::uint8_t channel) {
    std::unique_ptr<UsbCanAdapter> device;
    Told told = Run([&] {
      device = Make(where, channel);
      if (device->IsInit()) fake_.AwaitRead(device->adapter_index_, channel);
    });
    return {std::move(device), std::move(told)};
  }

  Told Close(std::unique_ptr<UsbCanAdapter> device) {
    return Run([&] { device.reset(); });
  }

  /// A hand's channel in use.
  std::unique_ptr<UsbCanAdapter> Live(std::uint8_t index, std::uint8_t channel) {
    fake_->devices[index] = {"SN-" + std::to_string(index)};
    auto device = Open(index, channel).first;
    EXPECT_TRUE(device->IsInit());
    return device;
  }

  int Count(std::uint8_t index) const {
    if (!zlg_) return HcanDevice::device_ref_count_[index];
    return std::map(CanfdDevices().canfd_device_info_cache)[index].ref_count;  // a copy's
  }

  Bytes ReceivedRecord(std::uint32_t id, std::uint8_t length, std::uint8_t fill) const {
    Bytes record(kRecordSize, fill);
    StoreU32(&record[Pick(4U, 0U)], id);
    record[Pick(15U, 9U)] = length;
    return record;
  }

  const bool zlg_;
  test::FakeLibrary& fake_;
};

struct Zlg : AdapterTest {
  Zlg() : AdapterTest(true) {}
};
struct UsbCan : AdapterTest, testing::WithParamInterface<bool> {
  UsbCan() : AdapterTest(GetParam()) {}
};
INSTANTIATE_TEST_SUITE_P(Both, UsbCan, testing::Bool(),
                         [](const auto& zlg) { return zlg.param ? "Zlg" : "Hcan"; });

// Opening and closing

TEST_P(UsbCan, ByIndexOpensAndClosesInOrderAndTellsIt) {
  fake_->devices[2] = {"ABC123  ", "USBCANFD-200U   ", 2};
  auto [device, told] = Open(2, 1);
  EXPECT_TRUE(device->IsInit());
  EXPECT_EQ(device->recv_thread_ != nullptr, zlg_) << "HCAN has a thread of its own";
  EXPECT_TRUE(zlg_ || dynamic_cast<HcanDevice&>(*device).running_);
  EXPECT_EQ(told.err, "");
  // The HCAN thread's own line comes when the thread comes.
  const std::string thread = Pick("", "[HCAN] RecvFrame thread started for device 2 channel 1\n");
  ASSERT_THAT(told.out, HasSubstr(thread));
  EXPECT_EQ(told.out.erase(told.out.find(thread), thread.size()),
            Pick("[INFO]: Found device 2 (type=33): USBCANFD-200U, SN=ABC123, Channels=2\n"
                 "[INFO]: Device 2 already open, reusing.\n"
                 "[INFO]: Init canfd device 2 channel 1 successfully.\n"
                 "[INFO]: Start canfd device 2 channel 1 successfully.\n"
                 "[INFO]: Device 2 ref count: 1\n",
                 "[HCAN] Scanned 3 device(s)\n"
                 "[HCAN] Device 2, channel 1 opened successfully, ret=0\n"
                 "[HCAN] Dev Pclk = 80000000 Hz (80 MHz)\n"
                 "[HCAN] Setting CANFD config, product_type_=0\n"
                 "[HCAN] 1M@80%, 5M@75% (80MHz)\n"
                 "[HCAN] Device initialized successfully, ret=0\n"
                 "[HCAN] Device 2 channel 1 opened successfully (CANFD mode)\n"
                 "[HCAN] Receive thread started for device 2 channel 1\n"));
  EXPECT_EQ(told.calls, Pick(ZlgOpened("33 2 1"), HcanOpened("2 1")));
  EXPECT_EQ(fake_->receive_calls,
            std::set<std::string>{Pick("VCI_ReceiveFD 33 2 1 256 50", "CANFD_Receive 2 1 256 50")});
  told = Close(std::move(device));
  EXPECT_EQ(told.calls, Pick("VCI_ResetCAN 33 2 1; VCI_CloseDevice 33 2", "CAN_CloseDevice 2 1"));
  EXPECT_EQ(told.err, "");
  EXPECT_EQ(told.out, Pick("[INFO]: Reset canfd device 2 channel 1 successfully.\n"
                           "[INFO]: Device 2 ref count: 0\n"
                           "[INFO]: Close canfd device 2 successfully.\n",
                           "[HCAN] Device 2 ch 1 ref_count=0\n[HCAN] Device 2 closed\n"));
}

TEST_P(UsbCan, OnlyOneHcanProductHasABitTimingOfItsOwn) {
  fake_->devices[0] = {"A"};
  for (std::uint8_t product = 0; product <= 4; ++product) {
    const Told told = Run([&] { Make(0, 0, product); });
    const Bytes zlg = {0x00, 0x87, 0x93, 0x03, 0, 0, 0, 0,   // 60 MHz, mode 0
                       46,   11,   3,    0,    0, 0,         // arbitration
                       7,    2,    1,    0,    0, 0};        // data
    Bytes hcan = {0x40, 0x42, 0x0F, 0, 0x40, 0x4B, 0x4C, 0,  // 1 and 5 Mbit/s
                  2,    0,    31,   8, 5,                    // arbitration
                  2,    5,    2,    1, 1,    0,    1};       // data, and the fixed end
    if (product == 1) std::copy_n(Bytes{1, 12, 3, 2}.begin(), 4, &hcan[13]);
    EXPECT_EQ(fake_->records[Pick("VCI_InitCAN", "CANFD_Init")], Pick(zlg, hcan));
    if (zlg_) continue;
    EXPECT_THAT(told.out, HasSubstr("product_type_=" + std::to_string(product) + "\n"));
    EXPECT_THAT(told.out, HasSubstr(product == 1 ? "[HCAN] TS9: 1M@80%, 5M@80% (80MHz)\n"
                                                 : "[HCAN] 1M@80%, 5M@75% (80MHz)\n"));
  }
}

// Settled: ZLG keeps a device once the process had it, and initialising a channel brings it back;
// on HCAN only the first hand opens its channel, and another one on the device just counts.
TEST_P(UsbCan, TheLastHandClosesTheDeviceWhicheverItIs) {
  fake_->devices[0] = {"A"};
  for (const bool first_goes_first : {true, false}) {
    auto [leaves, opened] = Open(0, 0);
    const auto zlg = first_goes_first ? ZlgOpened("33 0 0") : ZlgStart("33 0 0");
    EXPECT_EQ(opened.calls, Pick(zlg, HcanOpened("0 0")));
    auto [stays, told] = Open(0, 1);
    EXPECT_EQ(told.calls, Pick(ZlgStart("33 0 1"), ""));
    EXPECT_THAT(told.out, HasSubstr(Pick("[INFO]: Device 0 ref count: 2\n",
                                         "[HCAN] Device 0 ch 1 already opened, ref_count=2\n")));
    if (!first_goes_first) leaves.swap(stays);
    const std::string left = first_goes_first ? "0" : "1";
    const std::string last = first_goes_first ? "1" : "0";
    EXPECT_EQ(Close(std::move(leaves)).calls, Pick("VCI_ResetCAN 33 0 " + left, ""));
    EXPECT_TRUE(stays->IsInit());
    EXPECT_EQ(Count(0), 1);
    const std::string zlg_closed = "VCI_ResetCAN 33 0 " + last + "; VCI_CloseDevice 33 0";
    EXPECT_EQ(Close(std::move(stays)).calls, Pick(zlg_closed, "CAN_CloseDevice 0 " + last));
    EXPECT_EQ(Count(0), 0);
  }
}

TEST_P(UsbCan, AnOpeningThatFailsIsToldAndLeavesTheDeviceClosedAndUncounted) {
  struct Row {
    std::string refused;
    int result;
    std::string calls;  // all of them, those of the destructor too
    std::string err;
    bool opens = false;
  };
  const std::string info = "VCI_OpenDevice 33 2; VCI_ReadBoardInfo 33 2; ";
  const std::string closed = "; VCI_ResetCAN 33 2 1; VCI_CloseDevice 33 2";
  const std::string unmet = "VCI_OpenDevice 0 2; VCI_ResetCAN 0 2 1; VCI_CloseDevice 0 2";
  const std::string all = ZlgOpened("33 2 1") + closed;
  const std::string reference = "VCI_SetReference 33 2 1 ";
  const std::vector<Row> zlg = {
      {"VCI_OpenDevice", 0, "VCI_OpenDevice 33 2; " + unmet,
       "[ERROR]: Open device 2 usbcanfd failed!\n"},
      {"VCI_ReadBoardInfo", 0, info + "VCI_CloseDevice 33 2; " + unmet,
       "[ERROR]: Open device 2 usbcanfd failed!\n"},
      {"VCI_InitCAN", 0, info + "VCI_InitCAN 33 2 1" + closed,
       "[ERROR]: Init canfd device 2 channel 1 failed!\n"},
      {reference + "24 1", 0, all, "[ERROR]: CMD_CAN_TRES failed for device 2 channel 1\n", true},
      {reference + "50 0", 0, all, "[ERROR]: ZCAN_CMD_SET_CHNL_RECV_MERGE failed!\n", true},
      {reference + "68 20", 0, all, "[WARN]: CMD_CAN_TX_TIMEOUT failed for device 2 channel 1\n",
       true},
      {"VCI_StartCAN", 0, all, "[ERROR]: Start canfd device 2 channel 1 failed!\n"}};
  const std::string scan = "CAN_ScanDevice";
  const std::string open = scan + "; CAN_OpenDevice 2 1";
  const std::string close = "; CAN_CloseDevice 2 1";
  const std::string whole = HcanOpened("2 1") + close;
  const std::vector<Row> hcan = {
      {"CAN_ScanDevice", 0, scan, "[HCAN ERROR] No device found!\n"},
      {"CAN_ScanDevice", -1, scan, "[HCAN ERROR] No device found!\n"},
      {"CAN_ScanDevice", 2, scan, "[HCAN ERROR] Device ID 2 exceeds device count 2\n"},
      {"CAN_OpenDevice", -3, open, "[HCAN ERROR] Failed to open device 2, channel 1, ret=-3\n"},
      {"CAN_GetDevPlck", 36'000'000, open + "; CAN_GetDevPlck 2" + close,
       "[HCAN ERROR] 36 MHz clock is not supported (80 MHz required).\n"},
      // An unknown or unusual clock is accepted.
      {"CAN_GetDevPlck", 0, whole, "", true},
      {"CAN_GetDevPlck", -1, whole, "", true},
      {"CAN_GetDevPlck", 40'000'000, whole, "", true},
      {"CAN_GetDevPlck", 36'000'001, whole, "", true},
      {"CANFD_Init", -2, whole,
       "[HCAN ERROR] Failed to initialize CANFD device, ret=-2, product_type_=3\n"}};
  for (const Row& row : Pick(zlg, hcan)) {
    SCOPED_TRACE(row.refused + " returns " + std::to_string(row.result));
    Forget();
    fake_->devices[2] = {"A"};
    fake_->answers[row.refused] = row.result;
    const Told told = Run([&] {
      const auto device = Make(2, 1, 3);
      EXPECT_EQ(device->IsInit(), row.opens);
      EXPECT_EQ(Count(2), row.opens ? 1 : 0);
    });
    EXPECT_EQ(told.err, row.err);
    EXPECT_EQ(told.calls, row.calls);
    const bool clock_told = told.out.find("[HCAN] Dev Pclk") != std::string::npos;
    EXPECT_EQ(clock_told,
              !zlg_ && (row.refused == "CAN_GetDevPlck" ? row.result > 0 : row.calls == whole));
    EXPECT_EQ(Count(2), 0);
  }
}

TEST_F(Zlg, AStartThatFailsClosesTheDeviceOnlyIfThisObjectOpenedIt) {
  fake_->devices[1] = {"SN-1"};
  fake_->answers["VCI_StartCAN"] = 0;
  auto [alone, told] = Open("SN-1", 0);
  EXPECT_FALSE(alone->IsInit());
  EXPECT_THAT(told.calls, EndsWith("VCI_StartCAN 33 1 0; VCI_CloseDevice 33 1"));
  Close(std::move(alone));
  EXPECT_EQ(Count(1), 0);

  fake_->answers["VCI_StartCAN"] = 1;
  const auto live = Live(1, 0);
  fake_->answers["VCI_StartCAN 33 1 1"] = 0;
  EXPECT_EQ(Run([&] { Make(1, 1); }).calls, ZlgStart("33 1 1")) << "neither reset nor closed";
  EXPECT_EQ(Count(1), 1);
}

TEST_F(Zlg, FailuresOfClosingAreToldAndTheCountGoesDownAllTheSame) {
  const auto device = Live(0, 1);
  fake_->answers["VCI_ResetCAN"] = 0;
  fake_->answers["VCI_CloseDevice"] = 0;
  EXPECT_EQ(Run([&] { EXPECT_EQ(device->CloseDevice(), -1); }).err,
            "[ERROR]: Reset canfd device 0 channel 1 failed!\n"
            "[ERROR]: Close canfd device 0 failed!\n");
  EXPECT_EQ(Count(0), 0);
}

// Serial numbers. The scans of other tests don't reach index 7, so that HCAN, which keeps what a
// scan has met, doesn't know it.

TEST_P(UsbCan, AScanFindsASerialNumberByAPartAndLeavesDevicesInUseAlone) {
  const auto live = Live(7, 0);
  fake_->devices[0] = {" L0\t  ", "   "};                               // blanks at the end go
  fake_->devices[2] = {std::string(40, '0'), std::string(40, 'h'), 0};  // as long as the fields
  const auto [device, told] = Open("0000", 1);
  EXPECT_TRUE(device->IsInit());
  EXPECT_EQ(device->adapter_index_, 2);
  const std::string first = ": , SN= L0\t, Channels=2\n";
  const std::string zeros(Pick(20U, 32U), '0');
  const std::string second = ": " + std::string(Pick(40U, 32U), 'h') + ", SN=" + zeros;
  const std::string zlg = "[INFO]: Found device 0 (type=33)" + first +
                          "[INFO]: Found device 2 (type=33)" + second +
                          ", Channels=0\n[INFO]: Open device 2 usbcanfd successfully.\n";
  // A count of 0 channels means that the device doesn't tell.
  const std::string hcan =
      "[HCAN] Found device 0" + first + "[HCAN] Found device 2" + second +
      ", Channels=2\n[HCAN] Found device 7: fake adapter, SN=SN-7, Channels=2\n"
      "[HCAN] Found device by serial number: dev_id=2, channel_id=1, SN=" +
      zeros + "\n[HCAN] Scanned 8";
  EXPECT_THAT(told.out, StartsWith(Pick(zlg, hcan)));
  EXPECT_EQ(
      told.calls,
      Pick(
          "VCI_OpenDevice 33 0; VCI_ReadBoardInfo 33 0; VCI_CloseDevice 33 0; VCI_OpenDevice 33 1; "
          "VCI_OpenDevice 33 2; VCI_ReadBoardInfo 33 2; VCI_CloseDevice 33 2; VCI_OpenDevice 33 3; "
          "VCI_OpenDevice 33 4; VCI_OpenDevice 33 5; VCI_OpenDevice 33 6; VCI_OpenDevice 33 2; " +
              ZlgStart("33 2 1"),
          "CAN_ScanDevice; CAN_OpenDevice 0 0; CAN_ReadDevInfo 0; CAN_CloseDevice 0 0; "
          "CAN_OpenDevice 1 0; CAN_OpenDevice 2 0; CAN_ReadDevInfo 2; CAN_CloseDevice 2 0; "
          "CAN_OpenDevice 3 0; CAN_OpenDevice 4 0; CAN_OpenDevice 5 0; CAN_OpenDevice 6 0; "
          "CAN_ReadDevInfo 7; " +
              HcanOpened("2 1")));
  // ZLG doesn't look again for what a scan has met; HCAN does, and remembers a device in use that
  // doesn't answer.
  fake_->answers["CAN_ReadDevInfo 2"] = -1;
  const auto [again, told_again] = Open("0", 0);
  EXPECT_EQ(again->adapter_index_, 0) << "the lowest of several";
  EXPECT_THAT(told_again.calls, StartsWith(Pick("VCI_OpenDevice 33 0; VCI_InitCAN", "CAN_Scan")));
  EXPECT_THAT(told_again.calls, Not(HasSubstr(Pick("33 2", "Device 2"))));
  EXPECT_EQ(told_again.out.find("Found device 2" + second) != std::string::npos, !zlg_);
  EXPECT_EQ(Count(7), 1);
  const auto [shared, told_shared] = Open("SN-7", 1);
  EXPECT_EQ(shared->adapter_index_, 7);
  EXPECT_EQ(Count(7), 2);
  EXPECT_THAT(told_shared.calls, Not(HasSubstr(Pick("Device 33 7", "Device 7 "))));
  if (zlg_) return;
  // What a device in use says of itself counts for more than what it said before.
  fake_->devices[7] = {"SN-new", "fake adapter"};
  EXPECT_EQ(Open("SN-new", 1).first->adapter_index_, 7);
}

// The probe of a device that the process hasn't met leaves it open. A scan that comes then can't
// look at it, and must not forget it.
TEST_F(Zlg, AScanLeavesADeviceAloneThatAnotherThreadOpensForTheFirstTime) {
  fake_->devices[0] = {"SN-0"};
  std::unique_ptr<UsbCanAdapter> opened;
  std::thread opener;
  fake_->on_open = [&] {
    std::atomic<pid_t> id{0};
    opener = std::thread([&] {
      id = gettid();
      opened = Make(std::uint8_t{0}, 0);
    });
    // Until it waits for the scan, or has done before it waits what it should have waited with.
    while (!test::IsAsleep(id)) std::this_thread::yield();
  };
  Run([&] {
    Make("no such number", 0);
    opener.join();
  });
  EXPECT_TRUE(opened->IsInit());
}

TEST_P(UsbCan, ASerialNumberOrChannelThatIsNotThereDisturbsNobody) {
  const auto live = Live(7, 0);
  fake_->devices[0] = {"SN-A"};
  fake_->devices[1] = {"SN-B"};
  fake_->answers[Pick("VCI_ReadBoardInfo 33 1", "CAN_ReadDevInfo 1")] = Pick(0, -1);
  std::map<std::pair<std::string, std::uint8_t>, std::string> rows = {
      {{"NONE", 0}, "Device with serial number \"NONE\" not found!\n"},
      {{"SN-B", 0}, "Device with serial number \"SN-B\" not found!\n"}};
  if (!zlg_) rows[{"SN-A", 2}] = "Channel 2 exceeds available channels (2) for device 0\n";
  for (const auto& [asked, error] : rows) {
    auto [device, told] = Open(asked.first, asked.second);
    EXPECT_EQ(told.err, Pick("[ERROR]: ", "[HCAN ERROR] ") + error);
    EXPECT_THAT(told.calls, HasSubstr(Pick("VCI_ReadBoardInfo 33 1; VCI_CloseDevice 33 1",
                                           "CAN_ReadDevInfo 1; CAN_CloseDevice 1 0")));
    EXPECT_FALSE(device->IsInit());
    EXPECT_FALSE(!zlg_ && dynamic_cast<HcanDevice&>(*device).running_);
    EXPECT_EQ(Close(std::move(device)).calls, "");
    EXPECT_EQ(Count(7), 1);
    EXPECT_EQ(CanfdDevices().canfd_device_info_cache.count(1), 0U);
  }
}

TEST_F(Zlg, OnlyACacheThatHoldsTheFirstEightIndicesSavesTheScan) {
  auto& cache = CanfdDevices().canfd_device_info_cache;
  CanfdDevices().cache_valid_ = true;
  for (std::uint8_t i = 0; i < 8; ++i) cache[i].serial_number = "KNOWN";
  EXPECT_EQ(Run([&] { Make("OTHER", 0); }).calls, "");

  cache.erase(0);  // eight entries, but index 0 isn't known
  cache[9].serial_number = "KNOWN";
  fake_->devices[0] = {"OTHER"};
  Run([&] { EXPECT_TRUE(Make("OTHER", 0)->IsInit()); });
}

// Frames

// HCAN knows the lengths of CAN FD only, and pads a frame with what the caller's buffer holds.
TEST_P(UsbCan, AFrameGoesOutInTheRecordOfTheAdapter) {
  const auto device = Live(0, 1);
  for (std::uint8_t len = 0; len <= 64; ++len) {
    const std::uint32_t id = std::array{0x7FFU, 0x800U, 0x07130127U}.at(len % 3U);
    const bool extended = id > 0x7FF;
    Bytes data(64, 0xEE);
    Bytes expected(kRecordSize, 0);
    for (std::uint8_t i = 0; i < len; ++i) data[i] = expected[16U + i] = i ^ 0x55;
    if (zlg_) {  // CAN FD with bit-rate switch; the channel; the length
      StoreU32(&expected[4], id);
      StoreU32(&expected[8], extended ? 0xA10 : 0x810);
      expected[14] = 1;
      expected[15] = len;
    } else {  // the code of the next length
      StoreU32(expected.data(), extended ? id | 0x80000000 : id);
      expected[8] = 12;
      while (kLengths[expected[9]] < len) ++expected[9];
      std::copy_n(data.begin(), kLengths[expected[9]], &expected[16]);
      expected[10] = 1;
    }
    EXPECT_EQ(device->SendFrame(id, data.data(), len), 0);
    ASSERT_EQ(fake_->records[Pick("VCI_TransmitFD", "CANFD_Transmit")], expected) << int{len};
    EXPECT_EQ(TakeCalls(), Pick("VCI_TransmitFD 33 0 1 1", "CANFD_Transmit 0 1 1 100"));
  }
}

TEST_P(UsbCan, AFrameThatIsNotTakenIsToldAndOneThatIsTooLongIsNotSent) {
  const auto device = Live(0, 1);
  Bytes data(255, 1);
  EXPECT_EQ(Run([&] { EXPECT_EQ(device->SendFrame(9, data.data(), 65), -1); }).calls, "");
  fake_->answers[Pick("VCI_TransmitFD", "CANFD_Transmit")] = Pick(0, -1);
  EXPECT_EQ(Run([&] { EXPECT_EQ(device->SendFrame(0x12AB, data.data(), 12), -1); }).err,
            Pick("[ZLG CAN ERROR] VCI_TransmitFD failed: returned 0 (expected 1), device_type=33, "
                 "canfd_id=0, channel_id=1, id=0x000012ab, len=12\n",
                 "[HCAN ERROR] Failed to send frame, ID=0x12ab\n"));
}

// Its index may be that of a device on which another hand is.
TEST_P(UsbCan, AnObjectThatHoldsNoChannelSendsNothing) {
  const auto live = Live(0, 0);
  std::map<std::string, std::unique_ptr<UsbCanAdapter>> objects;
  Run([&] {
    objects["serial number not found"] = Make("NONE", 0);
    objects["no such device"] = Make(5, 0);
    if (!zlg_) objects["channel beyond the device"] = Make("SN-0", 2);
    if (!zlg_) objects["broadcast query"] = Make(0, 0, 255);
    objects["closed"] = Make(0, 0);
    objects["closed"]->CloseDevice();
  });
  for (const auto& [name, device] : objects) {
    SCOPED_TRACE(name);
    const Told told = Run([&, &object = *device] {
      EXPECT_THROW(object.SendRequestSynch(CanfdFrame{}), std::runtime_error);
      object.SetFrameSendTimeout(30);
    });
    EXPECT_EQ(told.calls, "");
    EXPECT_THAT(told.err, StartsWith(Pick("[ZLG CAN ERROR] VCI_TransmitFD failed: returned 0 ",
                                          "[HCAN ERROR] Failed to send frame, ID=0x0\n")));
  }
  std::uint8_t data[64] = {};
  EXPECT_EQ(live->SendFrame(1, data, 1), 0);
}

TEST_P(UsbCan, AFullBufferIsReadByItsLengthsAndACountBeyondItNotAtAll) {
  const auto device = Live(0, 0);
  std::vector<CanfdFrame> processed;
  device->BindCallbacks([&](const CanfdFrame& frame) { processed.push_back(frame); },
                        [](std::uint32_t id) { return id; },
                        [](std::uint32_t, std::uint32_t) { return false; });
  const std::uint32_t ids[] = {0xA0000815, 0x7FF};
  Bytes records;
  std::string unmatched;
  for (std::size_t i = 0; i < 256; ++i) {
    const Bytes record = ReceivedRecord(ids[i % 2], static_cast<std::uint8_t>(i), 7);
    records.insert(records.end(), record.begin(), record.end());
    if (zlg_)
      unmatched += std::string("[CAN] recv can_id=0x") + (i % 2 == 0 ? "815" : "7ff") +
                   " did not match any request\n";
  }
  for (const int count : {-1, 257, std::numeric_limits<int>::max(), 256}) {
    EXPECT_EQ(processed.size(), 0U);
    const Told told = Run([&] {
      fake_.Feed(0, 0, count, records);
      fake_.AwaitRead(0, 0);
    });
    EXPECT_EQ(told.err, count == 256 ? unmatched : "");
  }
  ASSERT_EQ(processed.size(), 256U);
  for (std::size_t i = 0; i < 256; ++i) {
    const std::size_t length =
        i < 16 ? Pick(i, std::size_t{kLengths[i]}) : Pick(std::min<std::size_t>(i, 64), 64UL);
    Bytes data(length, 7);
    data.resize(64);
    EXPECT_EQ(processed[i].can_id, ids[i % 2]) << "flag bits stay";
    EXPECT_EQ(processed[i].len, length) << i;
    EXPECT_EQ(Bytes(processed[i].data, std::end(processed[i].data)), data) << "nothing past it";
  }
}

TEST_P(UsbCan, AReplyReachesItsRequestAndOnHcanTheMessageCallbackToo) {
  const auto device = Live(0, 0);
  std::vector<std::uint32_t> processed;
  device->BindCallbacks([&](const CanfdFrame& frame) { processed.push_back(frame.can_id); },
                        [](std::uint32_t id) { return id; },
                        [](std::uint32_t request, std::uint32_t id) { return request == id; });
  device->frame_recv_timeout_ms_ = 60'000;
  device->show_data_details_ = true;
  fake_->on_transmit = [&] { fake_.Feed(0, 0, 1, ReceivedRecord(0x80000815, 2, 0x5A)); };
  CanfdFrame request;
  request.can_id = 0x815;
  const Told told = Run([&] {
    const CanfdFrame reply = device->SendRequestSynch(request);
    fake_.AwaitRead(0, 0);
    EXPECT_EQ(reply.can_id, 0x80000815);
    EXPECT_EQ(reply.len, 2);
    EXPECT_EQ(reply.data[1], 0x5A);
  });
  EXPECT_EQ(processed, Pick(std::vector<std::uint32_t>{}, {0x80000815}));
  EXPECT_EQ(told.err, "");
  EXPECT_EQ(std::count(told.out.begin(), told.out.end(), '\n'), Pick(2, 3))
      << "a request once more";
  EXPECT_THAT(told.out, HasSubstr(" SND: [CANID:00000815][DATA:]\n"));
  EXPECT_THAT(told.out, HasSubstr(" RCV: [CANID:00000815][DATA:5a 5a ]\n"));
}

TEST(UsbCanChannel, AReaderThatThrowsLeavesItsTurnToOthersAndOneAloneNeedsNoMemory) {
  const auto channel = std::make_shared<UsbCanChannel>();
  const auto count_of = [](UsbCanChannel::Seat& seat, const UsbCanChannel::Reader& read) {
    int count = 0;
    seat.Next(read, [&count](const SharedFrame&) { ++count; });
    return count;
  };
  const auto two = [](std::vector<CanfdFrame>& frames) { frames.resize(2); };
  UsbCanChannel::Seat seat(channel);
  {
    UsbCanChannel::Seat other(channel);
    EXPECT_THROW(count_of(other, [](auto&) { test::ThrowBadAlloc(); }), std::bad_alloc);
    EXPECT_EQ(count_of(seat, two), 2);
    EXPECT_EQ(count_of(other, two), 2) << "those that the other one read";
  }
  EXPECT_EQ(count_of(seat, two), 2);
  const test::AllocationHook hook(1, 1, [] { ADD_FAILURE() << "memory for frames"; });
  EXPECT_EQ(count_of(seat, two), 2);
}

TEST_P(UsbCan, TheSendTimeoutIsHeldWithinBoundsAndReachesAChannelInUse) {
  const auto device = Live(0, 1);
  EXPECT_EQ(device->GetFrameSendTimeout(), Pick(20, 0));
  const std::pair<int, int> rows[] = {{20000, 10000}, {10000, 10000}, {1, 1}, {0, 0}, {-5, 0}};
  for (const auto& [set, held] : rows) {
    device->SetFrameSendTimeout(set);
    EXPECT_EQ(device->GetFrameSendTimeout(), held);
    std::uint8_t data[1] = {};
    device->SendFrame(1, data, 1);
    const std::string told =
        held > 0 ? "VCI_SetReference 33 0 1 68 " + std::to_string(held) + "; " : "";
    EXPECT_EQ(TakeCalls(), Pick(told + "VCI_TransmitFD 33 0 1 1",
                                "CANFD_Transmit 0 1 1 " + std::to_string(held > 0 ? held : 100)));
  }
}

TEST_F(Zlg, TheSendTimeoutOfAClosedChannelIsKeptForTheNextOpening) {
  const auto device = Live(0, 1);
  fake_->answers["VCI_SetReference"] = 0;
  EXPECT_EQ(Run([&] { device->SetFrameSendTimeout(30); }).err,
            "[WARN]: SetFrameSendTimeout runtime CMD_CAN_TX_TIMEOUT failed\n");
  // 0 leaves the adapter's own.
  const std::pair<int, std::string> rows[] = {{70, "68 70"}, {0, "50 0"}};
  for (const auto& [timeout, last_set] : rows) {
    Run([&] { device->CloseDevice(); });
    EXPECT_EQ(Run([&, ms = timeout] { device->SetFrameSendTimeout(ms); }).calls, "")
        << "nobody uses the device";
    EXPECT_THAT(Run([&] { device->OpenDevice(); }).calls,
                EndsWith("VCI_SetReference 33 0 1 " + last_set + "; VCI_StartCAN 33 0 1"));
  }
}

}  // namespace
}  // namespace talvera::korvane
