#pragma once

#include <string>

namespace korvane_common {

/// The bits of a motor's error word that have a name: stalled, overheated, overcurrent, motor
/// fault, communication fault.
inline constexpr unsigned kNamedErrors = 0x1F;

/// What the bits of an error word mean, with commas; empty if none is set. "bit 7" for one that has
/// no name.
std::string ErrorNames(unsigned errors);

}  // namespace korvane_common
