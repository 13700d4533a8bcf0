#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "serial/usb_device.h"
#include "support/capture.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;
using test::Streams;
using testing::Contains;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;
using Frame = std::pair<std::uint8_t, Bytes>;
using Frames = std::vector<Frame>;

template <class T>
std::vector<T> operator+(std::vector<T> left, const std::vector<T>& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// A frame of device 1, made apart from the builder, its checksum bit by bit.
Bytes Wire(const Frame& frame) {
  Bytes bytes = {0xEE, 0xAA, 1, 0, static_cast<std::uint8_t>(frame.second.size() + 1), frame.first};
  bytes = bytes + frame.second;
  unsigned crc = 0;
  for (const unsigned byte : bytes) {
    crc ^= byte << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc << 1) ^ (crc & 0x8000 ? 0x11021 : 0);
  }
  return bytes + Bytes{static_cast<std::uint8_t>(crc), static_cast<std::uint8_t>(crc >> 8)};
}

const Bytes kPing = {0xEE, 0xAA, 1, 0, 1, 9, 0xFD, 0xB3};
const Bytes kPosition = {0xEE, 0xAA, 1, 0, 4, 7, 3, 0x34, 0x12, 0x4D, 0xE1};
const Frame kPingFrame = {9, {}};
const Frame kPositionFrame = {7, {3, 0x34, 0x12}};

// Writing

TEST(UsbFrameBuilder, WritesEveryFieldLittleEndianAndTheTrailerOfItsKind) {
  const Bytes data = {9, 8};
  UsbFrameBuilder builder(0x123, 0x32);
  builder.AddUint8(0xFE).AddInt8(-2).AddUint16(0x0304).AddInt16(-2);
  builder.AddUint32(0x01020304).AddInt32(-2).AddData(data.data(), data.size());
  const Bytes body = {0xEE, 0xAA, 0x23, 0x01, 17, 0x32, 0xFE, 0xFE, 4,    3, 0xFE,
                      0xFF, 4,    3,    2,    1,  0xFE, 0xFF, 0xFF, 0xFF, 9, 8};
  const Bytes trailers[] = {{0x55, 0x55}, {0xB1, 0xA5}, {0x33, 0xDD}};
  for (std::size_t type = 0; type < 3; ++type) {
    const auto size = builder.Finalize(static_cast<SerialFrameCrcType>(type));
    EXPECT_EQ(Bytes(builder.Data(), builder.Data() + size), body + trailers[type]);
  }
}

TEST(UsbFrameBuilder, RefusesWhatPassesItsBuffer) {
  const Bytes data(121, 7);
  UsbFrameBuilder full(1, 2);
  EXPECT_EQ(full.AddData(data.data(), 120).Finalize(SerialFrameCrcType::kNoCrc), 128U);
  EXPECT_EQ(full.AddUint8(1).Finalize(SerialFrameCrcType::kNoCrc), 0U);
  for (const std::size_t size : {std::size_t{121}, std::numeric_limits<std::size_t>::max()}) {
    UsbFrameBuilder builder(1, 2);
    builder.AddData(data.data(), size).AddUint8(1);
    EXPECT_EQ(builder.Finalize(SerialFrameCrcType::kCrc16Ccitt), 0U) << "a part is never sent";
  }
}

// Reading, by a device without a port

class SerialParser : public testing::Test {
 protected:
  SerialParser() {
    device_.frame_callback_ = [this](std::uint8_t command, const std::uint8_t* data,
                                     std::size_t size) {
      const std::uint8_t* const end = device_.recv_buffer_.data() + device_.recv_buffer_.size();
      ASSERT_LE(size, 63U);
      ASSERT_TRUE(data > device_.recv_buffer_.data() && data + size < end);
      delivered_.emplace_back(command, Bytes(data, data + size));
    };
  }

  /// What is delivered of a block, and what stays in the buffer.
  std::pair<Frames, Bytes> Take(const Bytes& block) {
    delivered_.clear();
    written_ = CaptureStreams([&] { device_.TakeBlock(block.data(), block.size()); });
    const auto begin = device_.recv_buffer_.begin();
    const auto end = begin + static_cast<std::ptrdiff_t>(device_.recv_buffer_pos_);
    return {delivered_, Bytes(begin, end)};
  }

  void ForgetAll() {
    device_.recv_buffer_pos_ = 0;
    device_.filter_device_id_ = kAnyDeviceId;
  }

  UsbSerialDevice device_{"", 115200};
  Frames delivered_;
  Streams written_;
};

TEST_F(SerialParser, AcceptsByHeadAndTrailer) {
  const Bytes modbus = {0xEE, 0xAA, 1, 0, 1, 9, 0xCF, 0x27};
  const Bytes longest = Wire({7, Bytes(63, 0xA5)});
  const Bytes too_long = Wire({7, Bytes(64, 0xA5)});
  const Bytes incomplete = {0xEE, 0xAA, 1, 0, 3, 0xCD, 1, 2, 3};
  const Bytes empty = {0xEE, 0xAA, 1, 0, 0, 0xCD, 3, 0};
  struct {
    const char* what;
    Bytes block;
    Frames delivered;
    Bytes left;
    std::string told;
  } const rules[] = {
      {"without data", kPing, {kPingFrame}, {}, ""},
      {"the longest", longest, {{7, Bytes(63, 0xA5)}}, {}, ""},
      {"one byte longer", too_long, {}, too_long, ""},
      {"two at once", kPing + kPosition, {kPingFrame, kPositionFrame}, {}, ""},
      {"marker", {0xEE, 0xAA, 1, 0, 2, 7, 3, 0x55, 0x55}, {{7, {3}}}, {}, ""},
      {"version, unchecked", {0xEE, 0xAA, 1, 0, 2, 0xCD, 3, 1, 2}, {{0xCD, {3}}}, {}, ""},
      {"update, unchecked", {0xEE, 0xAA, 1, 0, 2, 0xF2, 3, 1, 2}, {{0xF2, {3}}}, {}, ""},
      {"version, incomplete", incomplete, {}, incomplete, ""},
      {"the other checksum", modbus, {}, modbus, "0x27cf child_id=0xcf\n"},
      // Length 0 is consumed in silence: its checksum counts whatever the command seems to be.
      {"length 0, checksum", {0xEE, 0xAA, 1, 0, 0, 0x49, 0x41, 0}, {}, {0}, ""},
      {"length 0, marker", {0xEE, 0xAA, 1, 0, 0, 0x55, 0x55, 0}, {}, {0}, ""},
      {"length 0, wrong", empty, {}, empty, "0x3cd child_id=0x3\n"},
  };
  for (const auto& rule : rules) {
    ForgetAll();
    EXPECT_EQ(Take(rule.block), std::pair(rule.delivered, rule.left)) << rule.what;
    const std::string line = "[USB] drop frame: CRC mismatch recv=" + rule.told;
    EXPECT_EQ(written_.err, rule.told.empty() ? "" : line) << rule.what;
  }
}

// Settled: the first head decides, however its frame ends.
TEST_F(SerialParser, TheFirstHeadDecidesWhichDeviceIsHeard) {
  const Bytes incomplete = {0xEE, 0xAA, 2, 0, 60, 7, 3, 4};
  const Bytes damaged = {0xEE, 0xAA, 2, 0, 1, 9, 0, 0};
  for (const Bytes& first : {incomplete, damaged}) {
    ForgetAll();
    EXPECT_THAT(Take(first).first, IsEmpty());
    EXPECT_EQ(device_.filter_device_id_, 2);
    EXPECT_THAT(Take(kPing).first, IsEmpty()) << "another device's";
  }
  ForgetAll();
  for (UsbFrame head : {UsbFrame{0xEEAA, 3, 64, 1, {}}, UsbFrame{0xAAEE, 3, 65, 1, {}}}) {
    EXPECT_FALSE(device_.CheckFrame(&head));
    EXPECT_EQ(device_.filter_device_id_, kAnyDeviceId) << "only what passes decides";
    head = {0xAAEE, 0x7FF, 64, 1, {}};
    EXPECT_TRUE(device_.CheckFrame(&head));
  }
}

// Settled: what goes from the buffer is counted in frames, not in where they stood.
TEST_F(SerialParser, AFrameBehindItsLengthOfJunkComesTwice) {
  EXPECT_EQ(Take(Bytes{1} + kPosition), std::pair(Frames{kPositionFrame}, Bytes{0xE1}));
  ForgetAll();
  EXPECT_EQ(Take(Bytes(8, 1) + kPing), std::pair(Frames{kPingFrame}, kPing));
  EXPECT_EQ(Take(kPosition), std::pair(Frames({kPingFrame, kPositionFrame}), Bytes{}));
}

TEST_F(SerialParser, KeepsTheNewest128BytesOfJunk) {
  Bytes junk(200);
  std::iota(junk.begin(), junk.end(), std::uint8_t{0});
  EXPECT_EQ(Take(junk), std::pair(Frames{}, Bytes(junk.end() - 128, junk.end())));
  EXPECT_EQ(device_.recv_buffer_[128], 0);
  EXPECT_EQ(Take(kPing).first, Frames{kPingFrame});
}

// Settled: a full buffer starts again from nothing, and takes the block with it.
TEST_F(SerialParser, AFullBufferIsForgottenWithTheBlockThatFilledIt) {
  for (int i = 0; i < 4; ++i) EXPECT_THAT(Take(kPing + Bytes(248)).first, Contains(kPingFrame));
  ASSERT_EQ(device_.recv_buffer_pos_, 968U);
  EXPECT_EQ(Take(kPosition + Bytes(245)), std::pair(Frames{}, Bytes{}));
  EXPECT_EQ(written_.out, "recv_buffer_ full !!!, data may loss\n");
  EXPECT_THAT(device_.recv_buffer_, Contains(0x34)) << "copied, and not counted";
  EXPECT_EQ(Take(kPing), std::pair(Frames{kPingFrame}, Bytes{}));
}

// Damage

class TenFrames : public SerialParser {
 protected:
  TenFrames() {
    device_.filter_device_id_ = 1;
    for (std::uint8_t i = 0; i < 10; ++i) {
      Bytes data(i % 6U, i);
      frames_.emplace_back(static_cast<std::uint8_t>(0x20 + i), data);
      stream_ = stream_ + Wire(frames_.back());
      owner_.resize(stream_.size(), i);
    }
  }

  /// What is delivered of a stream that comes in two blocks.
  Frames Receive(const Bytes& stream, std::size_t cut) {
    device_.recv_buffer_pos_ = 0;
    const auto at = stream.begin() + static_cast<std::ptrdiff_t>(cut);
    const Frames first = Take({stream.begin(), at}).first;
    return first + Take({at, stream.end()}).first;
  }

  /// What is delivered when byte `at` is wrong, without what carries no checksum by rule and so may
  /// be anything.
  Frames ReceiveDamaged(std::size_t at, int change, std::size_t cut) {
    Bytes damaged = stream_;
    damaged[at] = static_cast<std::uint8_t>(damaged[at] ^ change);
    Frames frames = Receive(damaged, cut);
    const auto unchecked = [](const Frame& f) { return f.first == 0xCD || f.first == 0xF2; };
    frames.erase(std::remove_if(frames.begin(), frames.end(), unchecked), frames.end());
    return frames;
  }

  Frames frames_;
  Bytes stream_;
  std::vector<std::uint8_t> owner_;
};

TEST_F(TenFrames, ArriveOnceEachHoweverTheStreamIsCut) {
  for (std::size_t cut = 0; cut <= stream_.size(); ++cut) {
    ASSERT_EQ(Receive(stream_, cut), frames_) << cut;
    ASSERT_EQ(device_.recv_buffer_pos_, 0U);
  }
  Frames all;
  for (const std::uint8_t byte : stream_) all = all + Take({byte}).first;
  EXPECT_EQ(all, frames_) << "byte by byte";
}

TEST_F(TenFrames, OneWrongByteCostsItsOwnFrameAndWithACutMayRepeatOthersButInventsNone) {
  for (std::size_t at = 0; at < stream_.size(); ++at) {
    Frames others = frames_;
    others.erase(others.begin() + owner_[at]);
    for (int change = 1; change < 256; ++change) {
      ASSERT_EQ(ReceiveDamaged(at, change, 0), others) << at << ' ' << change;
    }
    for (std::size_t cut = 1; cut < stream_.size(); ++cut) {
      Frames all = ReceiveDamaged(at, 0x10, cut);
      std::sort(all.begin(), all.end());
      all.erase(std::unique(all.begin(), all.end()), all.end());
      ASSERT_EQ(all, others) << at << ' ' << cut;
    }
  }
}

TEST_F(SerialParser, StaysInItsBufferWhateverArrivesAndFindsFramesAgain) {
  const Bytes likely = {0xEE, 0xAA, 1, 0, 2, 9, 0x55, 0x55, 0xCD, 0xF2, 64, 65, 0xFF};
  std::mt19937 random(1);
  for (int round = 0; round < 5000; ++round) {
    Bytes block(random() % 257);
    for (auto& byte : block) byte = likely[random() % likely.size()];
    device_.filter_device_id_ = round % 2 == 0 ? kAnyDeviceId : 1;
    Take(block);
    ASSERT_LE(device_.recv_buffer_pos_, 1023U);
    device_.filter_device_id_ = 1;
    const Frames first = Take(kPosition).first;
    ASSERT_THAT(first + Take(kPosition).first, Contains(kPositionFrame)) << round;
  }
}

}  // namespace
}  // namespace talvera::korvane
