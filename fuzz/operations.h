#pragma once

#include "support.h"
#include "support/all_operations.h"

namespace talvera::korvane::fuzz {

/// Calls one of the operations; a byte of 128 and more is for the same with an argument that no
/// hand takes, where there is one.
inline void CallOneOf(const std::vector<test::HandOperation>& operations, KorvaneBase& hand,
                      Input& input) {
  const std::uint8_t byte = input.Byte();
  const test::HandOperation& operation = operations[(byte & 0x7FU) % operations.size()];
  const bool is_bad = (byte & 0x80U) != 0 && operation.bad_call;
  (is_bad ? operation.bad_call : operation.call)(hand);
}

}  // namespace talvera::korvane::fuzz
