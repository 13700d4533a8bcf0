#pragma once

#include <korvane_diagnostics.h>
#include <korvane_model.h>
#include <korvane_open.h>

#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "common/exit_status.h"
#include "options.h"

namespace korvane_tool {

using namespace korvane_common;  // the statuses and poses of all programs

using talvera::korvane::Failure;
using talvera::korvane::FailureKind;
using talvera::korvane::HandAddress;
using talvera::korvane::KorvaneBase;
using talvera::korvane::LinkKind;
using talvera::korvane::Model;
using talvera::korvane::ModelInfo;
using talvera::korvane::Outcome;

/// Keys stay in the order in which they were set.
using Json = nlohmann::ordered_json;

/// Ends a command with a status and a reason, of which the first line says what went wrong.
class ToolError : public std::runtime_error {
 public:
  ToolError(int status, const std::string& text) : std::runtime_error(text), status_(status) {}
  ToolError(int status, Failure failure)
      : std::runtime_error(failure.text), status_(status), failure_(std::move(failure)) {}
  explicit ToolError(Failure failure) : ToolError(StatusOf(failure), std::move(failure)) {}

  int Status() const { return status_; }
  /// Its kind is NONE if no operation of a hand failed.
  const Failure& Cause() const { return failure_; }

 private:
  int status_;
  Failure failure_;
};

/// The value, or a ToolError in its place.
template <class T>
T Need(Outcome<T> outcome) {
  if (!outcome) throw ToolError(outcome.failure());
  return *std::move(outcome);
}
inline void Need(const Outcome<void>& outcome) {
  if (!outcome) throw ToolError(outcome.failure());
}

/// A hand that has answered as the model that its address says.
struct OpenedHand {
  HandAddress address;  ///< With model and id.
  std::unique_ptr<KorvaneBase> hand;

  const ModelInfo& Info() const { return talvera::korvane::InfoOf(*address.model); }
  KorvaneBase& operator*() const { return *hand; }
  KorvaneBase* operator->() const { return hand.get(); }
};

/// Counts how often in a row a hand failed to answer, for loops that outlive a lost frame.
class Patience {
 public:
  Patience(const OpenedHand& hand, int failures_in_a_row)
      : hand_(hand), limit_(failures_in_a_row) {}

  /// How one request ended. Throws when there is no use in asking again: after too many failures,
  /// or when the link has gone.
  void Count(const Failure& failure);
  /// Failures in all.
  std::size_t Lost() const { return lost_; }

 private:
  const OpenedHand& hand_;
  int limit_;
  int in_a_row_ = 0;
  std::size_t lost_ = 0;
};

/// What all commands take.
struct CommonOptions {
  std::vector<std::string> hands;
  bool json = false;
  bool quiet = false;
  bool verbose = false;
  int timeout_ms = 0;  ///< 0: the hand's own.
};

/// Adds them to a command's own.
void AddCommonOptions(Options command, CommonOptions& options);

/// What all commands share: their common options, the hands that these name, and the output.
class Tool {
 public:
  CommonOptions options;
  bool prints_lines = false;  ///< A document takes one line, for commands whose output is lines.

  /// Applies the options, before a command runs.
  void Begin();

  /// What --hand or KORVANE_HAND names, if any.
  std::vector<std::string> Named() const;
  /// The addresses that were named, at least one.
  std::vector<HandAddress> Addresses() const;
  /// The only one. A usage error if there are several.
  HandAddress Address() const;

  /// The hand at an address, once it has answered as the model that the address says. Throws a
  /// ToolError whose status tells what is there instead.
  OpenedHand Open(const HandAddress& address) const;
  /// The only hand that was named.
  OpenedHand Open() const { return Open(Address()); }

  /// For people: texts to the standard output, unless --json or --quiet is set.
  bool Talks() const { return !options.json && !options.quiet; }
  /// Writes `text` if Talks().
  void Print(const std::string& text) const;
  /// Writes the document of a command, if --json is set.
  void PrintJson(const Json& document) const;
  /// A remark to the standard error stream, unless --quiet is set.
  void Warn(const std::string& text) const;
  /// Tells why a command ends, on the standard error stream, and with --json in its document, which
  /// may hold what the command has found so far. Its status.
  int Report(const ToolError& error, Json document) const;
  int Report(const ToolError& error) const;
};

/// The number that the whole text is; nothing if it is none.
std::optional<double> NumberIn(const std::string& text);
/// The parts between commas.
std::vector<std::string> SplitAtCommas(const std::string& text);

/// The text of a failure without what only a log needs: its level, the class, the frame.
std::string PlainText(const Failure& failure);

/// The identity of a hand in every document: address, model, id, side.
Json ToJson(const HandAddress& address);
/// Adds product_model, serial_number, firmware and hardware.
void AddVendor(const talvera::korvane::VendorInfo& vendor, Json& json);
/// kind, operation, text, advice, system_error
Json ToJson(const Failure& failure);

}  // namespace korvane_tool
