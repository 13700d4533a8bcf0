#include "secret.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <array>
#include <cstdint>
#include <system_error>

namespace korvane_tool {

std::string NewSecret() {
  std::array<std::uint64_t, 2> bits{};
  if (getrandom(bits.data(), sizeof(bits), 0) != static_cast<ssize_t>(sizeof(bits))) {
    throw std::system_error(errno, std::generic_category(), "no random numbers");
  }
  return fmt::format("{:016x}{:016x}", bits[0], bits[1]);
}

bool IsSecret(const std::string& expected, const std::string& told) {
  if (expected.empty() || expected.size() != told.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < expected.size(); ++i) {
    difference |= static_cast<unsigned>(expected[i] ^ told[i]) & 0xFFU;
  }
  return difference == 0;
}

}  // namespace korvane_tool
