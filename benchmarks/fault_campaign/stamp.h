#pragma once

#include <cstdint>

// What is asked, and how an answer says what it answers.

namespace talvera::korvane::bench {

constexpr std::uint8_t kId = 1;
constexpr int kTimeoutMs = 10;
constexpr unsigned kMotors = 10;
constexpr unsigned kNumbers = 512;

/// The last two bits differ among the kinds of one link.
enum Kind : unsigned {
  kPosition,
  kVelocity,
  kThreshold,
  kAllPositions,
  kNoKind,
  kAllCurrents,
};

/// The value that motor `index` has in the answer to a request: 9 bits for the number of the
/// request, 4 for the motor and 2 for the kind.
struct Stamp {
  unsigned number;
  unsigned index;
  unsigned kind;

  std::uint16_t Value() const {
    return static_cast<std::uint16_t>(number % kNumbers << 6 | index << 2 | (kind & 3));
  }
  static Stamp Of(short value) {
    const auto bits = static_cast<unsigned>(value);
    return {bits >> 6 & (kNumbers - 1), bits >> 2 & 15, bits & 3};
  }
};

}  // namespace talvera::korvane::bench
