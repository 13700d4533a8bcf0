#pragma once

#include <korvane_open.h>

#include <string>

namespace korvane_common {

/// The bits of a motor's error word that have a name: stalled, overheated, overcurrent, motor
/// fault, communication fault.
inline constexpr unsigned kNamedErrors = 0x1F;

/// What the bits of an error word mean, with commas; empty if none is set. "bit 7" for one that has
/// no name. A serial hand has only one bit, whatever it is that one of its motors has: "error".
std::string ErrorNames(unsigned errors, talvera::korvane::LinkKind link);

}  // namespace korvane_common
