#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iomanip>
#include <locale>
#include <sstream>
#include <string>

// Every text that the library composes is made here, so that its numbers look the same whatever
// locale an application has set.

namespace talvera::korvane {

/// A byte that stands in a text as it is, not as its number.
struct RawByte {
  std::uint8_t value;
};

namespace text_internal {

template <class Part>
void Append(std::ostream& text, const Part& part) {
  text << part;
}
inline void Append(std::ostream& text, std::uint8_t number) { text << unsigned{number}; }
inline void Append(std::ostream& text, RawByte byte) { text.put(static_cast<char>(byte.value)); }

}  // namespace text_internal

/// One text of all parts, composed before anything is written, so that lines of several threads
/// don't run into each other. A std::uint8_t is a number.
template <class... Parts>
std::string Compose(const Parts&... parts) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  (text_internal::Append(text, parts), ...);
  return text.str();
}

/// "1f": lower case, no prefix, no padding.
std::string Hex(std::uint32_t value);

/// "00 1f ": two digits and a blank for each byte.
std::string HexBytes(const std::uint8_t* bytes, std::size_t size);

/// "[YYYY-MM-DD HH:MM:SS.uuuuuu]", local time.
std::string FormatTimestamp(std::chrono::system_clock::time_point time);

}  // namespace talvera::korvane
