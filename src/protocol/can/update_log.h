#pragma once

#include <cstdint>
#include <string>

#include "protocol/can/update_rules.h"

namespace talvera::korvane {

/// Writes the lines of an update, as far as its model has them.
class UpdateLog {
 public:
  explicit UpdateLog(const UpdateRules& rules) : rules_(rules), wording_(rules.wording) {}

  bool LogsAnything() const { return wording_ != nullptr; }
  bool LogsReplies() const { return LogsAnything() && wording_->logs_replies; }

  /// "[ERROR][<class>][<operation>]<text>".
  void LogFailure(const char* operation, const std::string& text) const;
  /// "[WARN][<class>][<operation>]<text>".
  void LogWarning(const char* operation, const std::string& text) const;
  /// The meaning of an error status in the reply of one child, if it has one.
  void LogStatusMeaning(std::uint8_t child, std::uint32_t status) const;
  void LogStage(const std::string& line) const;
  void LogReply(const std::string& line) const;

  void LogUpgradeReply(std::uint32_t status) const;
  void LogRepeatedRestart() const;
  void LogLateResult() const;
  bool TakesLateResults() const { return LogsAnything() && wording_->late_result != nullptr; }

  void LogRestartingFirst() const;
  void LogRetry(std::uint32_t status, std::int32_t child) const;
  void LogNoReply() const;
  void LogCompleted() const;
  void LogNotReconnected() const;
  /// The answer to a result query.
  void LogResult(std::uint32_t status) const;

 private:
  const UpdateRules& rules_;
  const UpdateWording* const wording_;
};

}  // namespace talvera::korvane
