#include "can/hcan_device.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <memory>

#include "support/capture.h"
#include "support/fake_canbus.h"

namespace talvera::korvane {
namespace {

using test::Bytes;
using test::CaptureStreams;
using test::FakeCanBus;
using test::operator+;  // NOLINT(misc-unused-using-decls): the check misses operators
using test::Streams;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

using Calls = std::vector<std::string>;

constexpr std::size_t kRecordSize = 80;
/// CAN FD lengths by data length code, written down apart from the library's own.
const std::vector<std::uint8_t> kLengths = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};

Bytes ReceivedRecord(std::uint32_t id, std::uint8_t code, std::uint8_t fill) {
  Bytes record(kRecordSize, fill);
  for (unsigned i = 0; i < 4; ++i) record[i] = static_cast<std::uint8_t>(id >> (8 * i));
  record[9] = code;
  return record;
}

class Hcan : public testing::Test {
 protected:
  Hcan() {
    fake_.Reset();
    HcanDevice::device_ref_count_.clear();
  }

  std::unique_ptr<HcanDevice> Live(std::uint8_t index, std::uint8_t channel) {
    std::unique_ptr<HcanDevice> device;
    CaptureStreams([&] {
      device = std::make_unique<HcanDevice>(index, channel, std::uint8_t{0});
      if (device->IsInit()) fake_.AwaitRead(index, channel);
    });
    EXPECT_TRUE(device->IsInit());
    fake_.TakeCalls();
    return device;
  }

  test::FakeLibrary& fake_ = FakeCanBus();
};

// Opening and closing

TEST_F(Hcan, ByIndexOpensAndClosesInOrderAndTellsIt) {
  fake_.Plug(2, {"A"});
  std::unique_ptr<HcanDevice> device;
  Streams written = CaptureStreams([&] {
    device = std::make_unique<HcanDevice>(2, 1, 0);
    fake_.AwaitRead(2, 1);
  });
  EXPECT_EQ(written.err, "");
  // The thread's own line comes when the thread comes.
  const std::string thread_line = "[HCAN] RecvFrame thread started for device 2 channel 1\n";
  const auto at = written.out.find(thread_line);
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(written.out.erase(at, thread_line.size()),
            "[HCAN] Scanned 3 device(s)\n"
            "[HCAN] Device 2, channel 1 opened successfully, ret=0\n"
            "[HCAN] Dev Pclk = 80000000 Hz (80 MHz)\n"
            "[HCAN] Setting CANFD config, product_type_=0\n"
            "[HCAN] 1M@80%, 5M@75% (80MHz)\n"
            "[HCAN] Device initialized successfully, ret=0\n"
            "[HCAN] Device 2 channel 1 opened successfully (CANFD mode)\n"
            "[HCAN] Receive thread started for device 2 channel 1\n");
  EXPECT_EQ(fake_.TakeCalls(),
            (Calls{"CAN_ScanDevice", "CAN_OpenDevice 2 1", "CAN_GetDevPlck 2", "CANFD_Init 2 1"}));
  EXPECT_TRUE(device->IsInit());
  EXPECT_TRUE(device->running_);
  EXPECT_EQ(device->CanBusDeviceBase::recv_thread_, nullptr) << "it has a thread of its own";
  EXPECT_THAT(fake_.ReceiveCalls(), ElementsAre("CANFD_Receive 2 1 256 50"));

  written = CaptureStreams([&] { device.reset(); });
  EXPECT_EQ(written.out, "[HCAN] Device 2 ch 1 ref_count=0\n[HCAN] Device 2 closed\n");
  EXPECT_EQ(fake_.TakeCalls(), Calls{"CAN_CloseDevice 2 1"});
}

TEST_F(Hcan, TheBitTimingDependsOnTheProduct) {
  fake_.Plug(0, {"A"});
  for (std::uint8_t product = 0; product <= 4; ++product) {
    const Streams written = CaptureStreams([&] { HcanDevice(0, 0, product); });
    EXPECT_THAT(written.out, HasSubstr("product_type_=" + std::to_string(product) + "\n"));
    EXPECT_THAT(written.out, HasSubstr(product == 1 ? "[HCAN] TS9: 1M@80%, 5M@80% (80MHz)\n"
                                                    : "[HCAN] 1M@80%, 5M@75% (80MHz)\n"));
    Bytes expected = {0x40, 0x42, 0x0F, 0, 0x40, 0x4B, 0x4C, 0,  // 1 and 5 Mbit/s
                      2,    0,    31,   8, 5,                    // arbitration
                      2,    5,    2,    1, 1,    0,    1};       // data, and the fixed end
    if (product == 1) {
      expected[13] = 1;
      expected[14] = 12;
      expected[15] = 3;
      expected[16] = 2;
    }
    EXPECT_THAT(fake_.Records("CANFD_Init").back(), ElementsAreArray(expected));
  }
}

// Settled: only the first hand opens its channel; another one on the device just counts.
TEST_F(Hcan, ASecondHandOnlyRaisesTheCountAndTheLastOneCloses) {
  fake_.Plug(0, {"A"});
  for (const bool first_goes_first : {true, false}) {
    auto first = Live(0, 0);
    std::unique_ptr<HcanDevice> second;
    const Streams written = CaptureStreams([&] { second = std::make_unique<HcanDevice>(0, 1, 0); });
    EXPECT_THAT(written.out, HasSubstr("[HCAN] Device 0 ch 1 already opened, ref_count=2\n"));
    EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
    EXPECT_TRUE(second->IsInit());
    auto& leaves = first_goes_first ? first : second;
    auto& stays = first_goes_first ? second : first;
    CaptureStreams([&] { leaves.reset(); });
    EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
    EXPECT_EQ(HcanDevice::device_ref_count_.at(0), 1);
    CaptureStreams([&] { stays.reset(); });
    EXPECT_EQ(fake_.TakeCalls(),
              Calls{first_goes_first ? "CAN_CloseDevice 0 1" : "CAN_CloseDevice 0 0"});
  }
}

struct HcanFailure {
  std::string name;
  std::string call;
  int result;
  Calls calls;  // all of them, those of the destructor too
  std::string err;
};

void PrintTo(const HcanFailure& failure, std::ostream* out) { *out << failure.name; }

class HcanOpeningFailure : public Hcan, public testing::WithParamInterface<HcanFailure> {};

INSTANTIATE_TEST_SUITE_P(
    Cases, HcanOpeningFailure,
    testing::Values(
        HcanFailure{
            "NoDevice", "CAN_ScanDevice", 0, {"CAN_ScanDevice"}, "[HCAN ERROR] No device found!\n"},
        HcanFailure{"ScanFails",
                    "CAN_ScanDevice",
                    -1,
                    {"CAN_ScanDevice"},
                    "[HCAN ERROR] No device found!\n"},
        HcanFailure{"IndexBeyondCount",
                    "CAN_ScanDevice",
                    1,
                    {"CAN_ScanDevice"},
                    "[HCAN ERROR] Device ID 1 exceeds device count 1\n"},
        HcanFailure{"OpenFails",
                    "CAN_OpenDevice",
                    -3,
                    {"CAN_ScanDevice", "CAN_OpenDevice 1 0"},
                    "[HCAN ERROR] Failed to open device 1, channel 0, ret=-3\n"},
        HcanFailure{
            "Clock36MHz",
            "CAN_GetDevPlck",
            36'000'000,
            {"CAN_ScanDevice", "CAN_OpenDevice 1 0", "CAN_GetDevPlck 1", "CAN_CloseDevice 1 0"},
            "[HCAN ERROR] 36 MHz clock is not supported (80 MHz required).\n"},
        HcanFailure{"InitFails",
                    "CANFD_Init",
                    -2,
                    {"CAN_ScanDevice", "CAN_OpenDevice 1 0", "CAN_GetDevPlck 1", "CANFD_Init 1 0",
                     "CAN_CloseDevice 1 0"},
                    "[HCAN ERROR] Failed to initialize CANFD device, ret=-2, product_type_=3\n"}),
    [](const auto& tested) { return tested.param.name; });

TEST_P(HcanOpeningFailure, IsToldAndLeavesTheDeviceClosedAndUncounted) {
  fake_.Plug(1, {"A"});
  fake_.Answer(GetParam().call, GetParam().result);
  bool opened = true;
  const Streams written = CaptureStreams([&] { opened = HcanDevice(1, 0, 3).IsInit(); });
  EXPECT_FALSE(opened);
  EXPECT_EQ(written.err, GetParam().err);
  EXPECT_EQ(fake_.TakeCalls(), GetParam().calls);
  EXPECT_EQ(HcanDevice::device_ref_count_[1], 0);
}

TEST_F(Hcan, AnUnknownOrUnusualClockIsAccepted) {
  fake_.Plug(0, {"A"});
  for (const int clock : {0, -1, 40'000'000, 36'000'001}) {
    fake_.Answer("CAN_GetDevPlck", clock);
    Streams written = CaptureStreams([] { EXPECT_TRUE(HcanDevice(0, 0, 0).IsInit()); });
    EXPECT_EQ(written.out.find("Dev Pclk") != std::string::npos, clock > 0) << clock;
  }
}

TEST_F(Hcan, AnObjectForABroadcastQueryNeverOpensAnything) {
  fake_.Plug(0, {"SN"});
  const auto live = Live(0, 0);
  const Streams written = CaptureStreams([] {
    HcanDevice query(0, 0, 255);
    EXPECT_FALSE(query.IsInit());
    EXPECT_EQ(query.CloseDevice(), 0);
  });
  EXPECT_EQ(written.out + written.err, "");
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
  EXPECT_EQ(HcanDevice::device_ref_count_.at(0), 1);
}

TEST_F(Hcan, AnObjectThatOpenedSeveralTimesGivesEveryCountBack) {
  fake_.Plug(0, {"A"});
  CaptureStreams([&] {
    auto device = Live(0, 0);
    EXPECT_EQ(device->OpenDevice(), 0);
    EXPECT_EQ(device->OpenDevice(), 0);
    EXPECT_EQ(HcanDevice::device_ref_count_.at(0), 3);
    EXPECT_EQ(device->CloseDevice(), 0);
    EXPECT_EQ(HcanDevice::device_ref_count_.at(0), 2);
    device.reset();
  });
  EXPECT_EQ(HcanDevice::device_ref_count_.at(0), 0) << "the adapter would never be closed";
}

// Serial numbers

TEST_F(Hcan, ASerialNumberIsFoundByAPartAndScanningClosesWhatItOpens) {
  fake_.Plug(0, {"LEFT-1  ", "HCAN-2  ", 2});
  fake_.Plug(2, {std::string(32, '7'), std::string(32, 'h'), 0});
  std::unique_ptr<HcanDevice> device;
  const Streams written = CaptureStreams([&] {
    device = std::make_unique<HcanDevice>("777", 1, 0);
    fake_.AwaitRead(2, 1);
  });
  EXPECT_THAT(written.out,
              HasSubstr("[HCAN] Found device 0: HCAN-2, SN=LEFT-1, Channels=2\n"
                        "[HCAN] Found device 2: " +
                        std::string(32, 'h') + ", SN=" + std::string(32, '7') +
                        ", Channels=2\n"  // a count of 0 means that the device doesn't tell
                        "[HCAN] Found device by serial number: dev_id=2, channel_id=1, SN=" +
                        std::string(32, '7') + "\n[HCAN] Scanned 3 device(s)\n"));
  EXPECT_EQ(
      fake_.TakeCalls(),
      (Calls{"CAN_ScanDevice", "CAN_OpenDevice 0 0", "CAN_ReadDevInfo 0", "CAN_CloseDevice 0 0",
             "CAN_OpenDevice 1 0", "CAN_OpenDevice 2 0", "CAN_ReadDevInfo 2", "CAN_CloseDevice 2 0",
             "CAN_ScanDevice", "CAN_OpenDevice 2 1", "CAN_GetDevPlck 2", "CANFD_Init 2 1"}));
  EXPECT_EQ(device->adapter_index_, 2);
  EXPECT_TRUE(device->IsInit());

  // Found again while it is in use, and nothing is done to it.
  CaptureStreams([&] {
    const auto found = HcanDevice::FindHcanDeviceBySerialNumber("777");
    ASSERT_TRUE(found);
    EXPECT_EQ(found->adapter_index, 2);
  });
  for (const auto& call : fake_.TakeCalls()) {
    EXPECT_EQ(call.find("Device 2 "), std::string::npos) << call;
  }
}

TEST_F(Hcan, ASerialNumberOrChannelThatIsNotThereGivesNoThread) {
  fake_.Plug(0, {"SN-A", "HCAN", 2});
  fake_.Plug(1, {"SN-B", "HCAN", 4});
  fake_.Answer("CAN_ReadDevInfo 1", -1);
  struct Row {
    std::string serial_number;
    std::uint8_t channel;
    std::string err;
  };
  const Row rows[] = {
      {"NONE", 0, "[HCAN ERROR] Device with serial number \"NONE\" not found!\n"},
      {"SN-B", 0, "[HCAN ERROR] Device with serial number \"SN-B\" not found!\n"},
      {"SN-A", 2, "[HCAN ERROR] Channel 2 exceeds available channels (2) for device 0\n"}};
  for (const Row& row : rows) {
    std::unique_ptr<HcanDevice> device;
    const Streams written = CaptureStreams(
        [&] { device = std::make_unique<HcanDevice>(row.serial_number, row.channel, 0); });
    EXPECT_EQ(written.err, row.err);
    EXPECT_FALSE(device->IsInit());
    EXPECT_FALSE(device->running_);
    fake_.TakeCalls();
    device.reset();
    EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
  }
}

TEST_F(Hcan, ADeviceThatWasOpenedUnscannedIsFoundWithoutOpeningItAgain) {
  // No scan of this program has met this index before.
  fake_.Plug(77, {"SN-77"});
  const auto device = Live(77, 1);
  std::vector<HcanDeviceInfo> found;
  CaptureStreams([&] { found = HcanDevice::ScanHcanDevices(); });
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].serial_number, "SN-77");
  for (const auto& call : fake_.TakeCalls()) {
    EXPECT_EQ(call.find("Device 77 "), std::string::npos) << call;
  }
}

TEST(HcanText, LosesItsTrailingBlanksOnly) {
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"   ", ""}, {" a b  ", " a b"}, {"a\t ", "a\t"}};
  for (const auto& [text, trimmed] : rows) {
    std::string changed = text;
    TrimTrailingSpaces(changed);
    EXPECT_EQ(changed, trimmed);
  }
}

// Frames

TEST_F(Hcan, AFrameGoesOutWithTheCodeOfTheNextLengthAndZeroesUpToIt) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  for (std::uint8_t len = 0; len <= 64; ++len) {
    const std::uint32_t id = len % 2 == 0 ? 0x7FF : 0x800;
    Bytes data(64, 0);
    std::fill_n(data.begin(), len, std::uint8_t{0x5A});
    EXPECT_EQ(device->SendFrame(id, data.data(), len), 0);
    Bytes expected(kRecordSize, 0);
    expected[0] = len % 2 == 0 ? 0xFF : 0x00;
    expected[1] = len % 2 == 0 ? 0x07 : 0x08;
    expected[3] = len % 2 == 0 ? 0x00 : 0x80;
    expected[8] = 12;
    while (kLengths[expected[9]] < len) ++expected[9];
    expected[10] = 1;
    std::fill_n(expected.begin() + 16, len, std::uint8_t{0x5A});
    ASSERT_THAT(fake_.Records("CANFD_Transmit").back(), ElementsAreArray(expected)) << int{len};
  }
  fake_.TakeCalls();
  Bytes too_long(255, 1);
  EXPECT_EQ(device->SendFrame(1, too_long.data(), 65), -1);
  EXPECT_THAT(fake_.TakeCalls(), IsEmpty());
}

TEST_F(Hcan, TheSendTimeoutIsHeldWithinBoundsAndZeroMeansAHundredMilliseconds) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 1);
  EXPECT_EQ(device->GetFrameSendTimeout(), 0);
  const int rows[][3] = {{0, 0, 100}, {-5, 0, 100}, {1, 1, 1}, {20000, 10000, 10000}};
  for (const auto& [set, held, used] : rows) {
    device->SetFrameSendTimeout(set);
    EXPECT_EQ(device->GetFrameSendTimeout(), held);
    std::uint8_t data[1] = {};
    device->SendFrame(1, data, 1);
    EXPECT_THAT(fake_.TakeCalls(), ElementsAre("CANFD_Transmit 0 1 1 " + std::to_string(used)));
  }
  fake_.Answer("CANFD_Transmit", -1);
  std::uint8_t data[1] = {};
  const Streams written =
      CaptureStreams([&] { EXPECT_EQ(device->SendFrame(0x12AB, data, 1), -1); });
  EXPECT_EQ(written.err, "[HCAN ERROR] Failed to send frame, ID=0x12ab\n");
}

TEST_F(Hcan, ReceivedCodesBecomeLengthsAndNothingPastThemIsRead) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  std::vector<CanfdFrame> processed;
  device->BindCallbacks([&](const CanfdFrame& frame) { processed.push_back(frame); }, nullptr,
                        nullptr);
  Bytes records;
  std::vector<std::uint8_t> lengths;
  for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 255}) {
    records = std::move(records) + ReceivedRecord(0x80000815, static_cast<std::uint8_t>(code), 7);
    lengths.push_back(code < 16 ? kLengths[static_cast<std::size_t>(code)] : 64);
  }
  fake_.Feed(0, 0, static_cast<std::int64_t>(lengths.size()), records);
  fake_.AwaitRead(0, 0);
  ASSERT_EQ(processed.size(), lengths.size());
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    EXPECT_EQ(processed[i].can_id, 0x80000815) << "flag bits stay";
    EXPECT_EQ(processed[i].len, lengths[i]);
    Bytes expected(64, 0);
    std::fill_n(expected.begin(), lengths[i], std::uint8_t{7});
    EXPECT_THAT(processed[i].data, ElementsAreArray(expected));
  }
}

TEST_F(Hcan, CountsThatAreNotInTheBufferAreNoFramesAndAFullBufferIs) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  std::size_t processed = 0;
  device->BindCallbacks([&](const CanfdFrame&) { ++processed; }, nullptr, nullptr);
  Bytes full;
  for (int i = 0; i < 256; ++i) full = std::move(full) + ReceivedRecord(1, 15, 7);
  for (const int count : {-1, 257, std::numeric_limits<int>::max()}) {
    fake_.Feed(0, 0, count, full);
    fake_.AwaitRead(0, 0);
  }
  EXPECT_EQ(processed, 0U);
  fake_.Feed(0, 0, 256, full);
  fake_.AwaitRead(0, 0);
  EXPECT_EQ(processed, 256U);
}

TEST_F(Hcan, AReplyReachesItsRequestAndTheMessageCallback) {
  fake_.Plug(0, {"A"});
  const auto device = Live(0, 0);
  std::vector<std::uint32_t> processed;
  device->BindCallbacks([&](const CanfdFrame& frame) { processed.push_back(frame.can_id); },
                        [](std::uint32_t id) { return id; },
                        [](std::uint32_t request, std::uint32_t id) { return request == id; });
  device->frame_recv_timeout_ms_ = 60'000;
  device->show_data_details_ = true;
  fake_.OnTransmit([&] { fake_.Feed(0, 0, 1, ReceivedRecord(0x80000815, 2, 0x5A)); });
  CanfdFrame request;
  request.can_id = 0x815;
  CanfdFrame reply;
  const Streams written = CaptureStreams([&] {
    reply = device->SendRequestSynch(request);
    fake_.AwaitRead(0, 0);
  });
  EXPECT_EQ(reply.can_id, 0x80000815);
  EXPECT_EQ(reply.data[1], 0x5A);
  EXPECT_THAT(processed, ElementsAre(0x80000815));
  EXPECT_EQ(written.err, "");
  std::size_t sent_lines = 0;
  for (auto at = written.out.find(" SND: [CANID:00000815][DATA:]\n"); at != std::string::npos;
       at = written.out.find(" SND: ", at + 1)) {
    ++sent_lines;
  }
  EXPECT_EQ(sent_lines, 2U) << "this adapter logs a request once more than the others";
  EXPECT_THAT(written.out, HasSubstr(" RCV: [CANID:00000815][DATA:5a 5a ]\n"));
}

}  // namespace
}  // namespace talvera::korvane
