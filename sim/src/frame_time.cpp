#include <algorithm>

#include "korvane_sim/bit_rates.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

/// Counts the bits of a frame from its start to the end of its data. After five equal bits the
/// sender stuffs in one of the other kind, which counts as the first of its kind.
class BitCounter {
 public:
  void Add(std::uint32_t value, int bits) {
    for (int i = bits - 1; i >= 0; --i) AddBit((value >> i & 1U) != 0);
  }
  int Count() const { return count_; }

 private:
  void AddBit(bool bit) {
    // A stuff bit is due before the next bit only, so that none follows the last one.
    if (run_ == kLongestRun) {
      ++count_;
      last_ = !last_;
      run_ = 1;
    }
    run_ = bit == last_ ? run_ + 1 : 1;
    last_ = bit;
    ++count_;
  }

  static constexpr int kLongestRun = 5;
  int count_ = 0;
  int run_ = 0;
  bool last_ = true;
};

constexpr std::uint8_t kLongestWithShortCrc = 16;

/// The stuff count, the checksum and their stuff bits, which stand at fixed places: one ahead of
/// them and one after each four.
int CrcBits(std::uint8_t length) {
  const int bits = 4 + (length > kLongestWithShortCrc ? 21 : 17);
  return bits + 1 + bits / 4;
}

/// Delimiter of the checksum, acknowledgement and its delimiter, end of frame, pause.
constexpr int kTailBits = 1 + 1 + 1 + 7 + 3;

}  // namespace

std::chrono::nanoseconds FrameTime(const Frame& frame, const BitRates& rates) {
  BitCounter bits;
  bits.Add(0, 1);  // start of frame
  if (IsExtended(frame.id)) {
    bits.Add(frame.id >> 18, 11);
    bits.Add(0b11, 2);  // no remote request, extended
    bits.Add(frame.id, 18);
    bits.Add(0b010, 3);  // data, CAN FD, reserved
  } else {
    bits.Add(frame.id, 11);
    bits.Add(0b0010, 4);  // data, not extended, CAN FD, reserved
  }
  bits.Add(rates.data != rates.arbitration ? 1 : 0, 1);  // bit rate switch
  const int head = bits.Count();
  bits.Add(0, 1);  // error state
  bits.Add(DlcOf(frame.len), 4);
  std::for_each(frame.data.begin(), frame.data.begin() + frame.len,
                [&](std::uint8_t byte) { bits.Add(byte, 8); });
  const std::int64_t at_data_rate = bits.Count() - head + CrcBits(frame.len);
  const std::chrono::nanoseconds second = std::chrono::seconds(1);
  return second * (head + kTailBits) / rates.arbitration + second * at_data_rate / rates.data;
}

}  // namespace talvera::korvane::sim
