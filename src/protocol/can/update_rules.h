#pragma once

#include <chrono>
#include <cstdint>

// How the firmware update of one model over CAN differs from that of another, as data.

namespace talvera::korvane {

/// Which hands' replies an update takes.
enum class ReplySenders : std::uint8_t { kAny, kOwnId, kOwnIdAndFamily };

/// What becomes of a second reply to the restart request.
enum class RepeatedRestart : std::uint8_t { kIgnoredWithLine, kIgnored, kTaken };

/// The lines that an update writes. A text with a variable part is given up to that part; a null
/// text is not written.
struct UpdateWording {
  /// Lines for each stage of the run, not only for what goes wrong.
  bool logs_stages = false;
  /// Lines for each reply of the hand.
  bool logs_replies = false;
  /// A line for every reply to the upgrade request, with a callback too.
  bool logs_upgrade_replies = false;
  /// After a failure, a line with the meaning of the hand's status.
  bool logs_status_meanings = false;
  /// The hand answers the first upgrade request with its reply to an earlier restart request.
  const char* restarting_first = nullptr;
  /// No good reply to the upgrade request yet, which is sent once more.
  const char* retrying = nullptr;
  /// The same while the hand has sent nothing at all. Null: `retrying` stands here too.
  const char* retrying_silent_hand = nullptr;
  /// No good reply to any of the upgrade requests. Follows the name of the operation.
  const char* no_reply = nullptr;
  /// The end of a run after which the hand answered again, and of one after which it didn't.
  const char* completed = nullptr;
  const char* not_reconnected = nullptr;
  /// A good reply to a result query comes when nobody waits for it any more.
  const char* late_result = nullptr;
};

inline constexpr UpdateWording kFullUpdateWording = [] {
  UpdateWording wording;
  wording.logs_stages = true;
  wording.logs_replies = true;
  wording.logs_upgrade_replies = true;
  wording.logs_status_meanings = true;
  wording.restarting_first =
      "[INFO]: [UpdateFirmware] Received restart response (0x04), device will restart. Waiting for "
      "restart...";
  wording.retrying = "[WARN]: [UpdateFirmware] Upgrade request no response (status=";
  wording.no_reply = " Upgrade request failed after 10 retries: no valid response";
  wording.completed = "[INFO]: [UpdateFirmware] OTA upgrade process completed [OK]!";
  wording.not_reconnected =
      "[WARN]: [UpdateFirmware] Could not reconnect to device after restart, but restart response "
      "was received";
  return wording;
}();

/// The query for the result of the last update.
struct ResultQuery {
  /// Time between two tries.
  std::chrono::milliseconds pause{1000};
  /// A bad answer ends the query too, and isn't asked for again.
  bool any_answer_ends = false;
  /// The lines for a good and, up to the status, a bad answer; null writes none.
  const char* success = nullptr;
  const char* failure = nullptr;
};

struct UpdateRules {
  const char* class_name = nullptr;
  /// The family field of the identifiers, in place.
  std::uint32_t family = 0;
  /// Null: the update writes nothing.
  const UpdateWording* wording = &kFullUpdateWording;
  ReplySenders replies_from = ReplySenders::kOwnId;
  RepeatedRestart repeated_restart = RepeatedRestart::kIgnoredWithLine;
  /// A first packet that fails the hand's check is sent once more with the other checksum.
  bool checksum_fallback = false;
  /// The receive thread sends the first packet too, when the request is accepted.
  bool first_packet_on_acceptance = false;
  /// A reply with an error status is reported at once; otherwise by the run alone.
  bool replies_report_errors = true;
  /// A packet is reported by how many have been acknowledged; otherwise by its number from 0.
  bool counts_acknowledged = false;
  /// The run reports a refused upgrade request, and one that nothing answers.
  bool reports_refusal = false;
  bool reports_no_reply = false;
  /// However a run fails, its callback goes with it.
  bool always_clears_callback = false;
  ResultQuery result_query = {};
};

}  // namespace talvera::korvane
