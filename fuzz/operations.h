#pragma once

#include "support.h"
#include "support/all_operations.h"

namespace talvera::korvane::fuzz {

/// Targets of any motors, in any modes, and with or without what the modes need.
inline void CallMixed(KorvaneBase& hand, Input& input) {
  std::vector<MixCtrl> targets(input.Below(24));
  for (MixCtrl& target : targets) {
    const std::uint8_t where = input.Byte();
    target.joint_index = where & 0x1FU;
    target.mix_mode = (where >> 5U) & 7U;
    const std::uint8_t parts = input.Byte();
    if ((parts & 1U) != 0) target.position = input.Take<short>();
    if ((parts & 2U) != 0) target.velocity = input.Take<short>();
    if ((parts & 4U) != 0) target.current = input.Take<short>();
  }
  hand.MixCtrlJointMotor(targets);
}

/// Calls one of the operations; a byte of 128 and more is for the same with an argument that no
/// hand takes, where there is one.
inline void CallOneOf(const std::vector<test::HandOperation>& operations, KorvaneBase& hand,
                      Input& input) {
  const std::uint8_t byte = input.Byte();
  const std::size_t which = (byte & 0x7FU) % (operations.size() + 1);
  if (which == operations.size()) return CallMixed(hand, input);
  const test::HandOperation& operation = operations[which];
  const bool is_bad = (byte & 0x80U) != 0 && operation.bad_call;
  (is_bad ? operation.bad_call : operation.call)(hand);
}

/// An update: with some firmware, with none, or with a file that isn't there.
inline void UpdateSomehow(Korvane& hand, std::uint8_t how) {
  static const MemoryFile some(std::string(2 * 2048 + 100, 'f'));
  static const MemoryFile none("");
  const std::string paths[] = {some.Path(), none.Path(), "/nonexistent", some.Path()};
  Update(hand, (how & 1U) != 0, paths[how >> 6U]);
}

}  // namespace talvera::korvane::fuzz
