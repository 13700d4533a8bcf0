#include "util/text.h"

#include <ctime>

namespace talvera::korvane {

std::string Hex(std::uint32_t value) { return Compose(std::hex, value); }

std::string HexBytes(const std::uint8_t* bytes, std::size_t size) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(3 * size);
  for (std::size_t i = 0; i < size; ++i) {
    text += {kDigits[bytes[i] >> 4], kDigits[bytes[i] & 0xF], ' '};
  }
  return text;
}

std::string FormatTimestamp(std::chrono::system_clock::time_point time) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
  const auto microseconds =
      std::chrono::duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count() %
      1'000'000;
  std::tm local{};
  localtime_r(&seconds, &local);
  return Compose('[', std::put_time(&local, "%Y-%m-%d %H:%M:%S"), '.', std::setfill('0'),
                 std::setw(6), microseconds, ']');
}

}  // namespace talvera::korvane
