#pragma once

namespace talvera::korvane {

/// In what an adapter's treatment of received frames differs from the usual one, in which a frame
/// that answers no request goes to `process_msg_`, silently. See CanBusDeviceBase::Dispatch.
struct DispatchRules {
  /// Every frame goes to `process_msg_`, before it is matched.
  bool process_every_frame = false;
  /// A matched identifier leaves the pending set at once and the walk goes on to its end. Otherwise
  /// the walk stops at the first match, which stays for the requester to erase.
  bool consume_every_match = false;
  /// A frame that answers no request is logged on the standard error stream.
  bool log_unmatched = false;
  /// The frame log has neither timestamp nor end of line.
  bool bare_log = false;
};

/// The frame log of this adapter has always been the bare one, and tools that read it expect that.
inline constexpr DispatchRules kSocketCanDispatch = [] {
  DispatchRules rules;
  rules.bare_log = true;
  return rules;
}();

inline constexpr DispatchRules kZlgDispatch = [] {
  DispatchRules rules;
  rules.log_unmatched = true;
  return rules;
}();

/// So of a reply in several frames only the first is stored. Applications are built around it.
inline constexpr DispatchRules kHcanDispatch = [] {
  DispatchRules rules;
  rules.process_every_frame = true;
  rules.consume_every_match = true;
  return rules;
}();

}  // namespace talvera::korvane
