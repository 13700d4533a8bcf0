#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "korvane_diagnostics.h"

namespace talvera::korvane {

/// What a link throws inside the library: what its text says, for people, and the same for
/// programs.
class LinkError : public std::runtime_error {
 public:
  LinkError(FailureKind kind, const std::string& text, int system_error = 0)
      : std::runtime_error(text), kind_(kind), system_error_(system_error) {}

  FailureKind Kind() const { return kind_; }
  int SystemError() const { return system_error_; }

 private:
  FailureKind kind_;
  int system_error_;
};

/// What an exception of a link tells; of another kind, that something couldn't be sent.
LinkError AsLinkError(const std::exception& error);

/// What a link counts. Written by the threads that send and receive, read by any.
struct LinkCounters {
  std::atomic<std::uint64_t> requests{0};
  std::atomic<std::uint64_t> replies{0};
  std::atomic<std::uint64_t> send_failures{0};
  std::atomic<std::uint64_t> timeouts{0};
  std::atomic<std::uint64_t> unmatched_frames{0};
  std::atomic<std::chrono::steady_clock::duration> last_reply{};
  std::atomic<bool> link_lost{false};

  /// For a link that another owner takes over while nobody talks.
  void Clear() {
    for (auto* const count : {&requests, &replies, &send_failures, &timeouts, &unmatched_frames}) {
      *count = 0;
    }
    last_reply = std::chrono::steady_clock::duration{};
  }

  void CountReply() {
    ++replies;
    last_reply = std::chrono::steady_clock::now().time_since_epoch();
  }
};

using BadReplyCount = std::atomic<std::uint64_t>;

/// Identifies one hand to the records of failures, which each thread keeps for itself: LastFailure
/// speaks of the calling thread's operations only, so that nothing here needs a lock.
class HandDiagnostics {
 public:
  HandDiagnostics() = default;
  HandDiagnostics(const HandDiagnostics&) = delete;
  HandDiagnostics& operator=(const HandDiagnostics&) = delete;

  /// The calling thread's record of this hand; null while the thread ends.
  diagnostics_internal::OperationRecord* Record() const;

  /// How many operations ended with BAD_REPLY.
  std::uint64_t BadReplies() const { return *bad_replies_; }

 private:
  /// Owned by this hand alone. It is a shared_ptr because each thread keeps a weak_ptr to it beside
  /// its record: so it notices that a hand is gone, also when a new one has the same address.
  std::shared_ptr<BadReplyCount> bad_replies_ = std::make_shared<BadReplyCount>(0);
};

/// One operation on a hand, from its first line to its last. The outermost one on a thread is what
/// the application called: it begins without a failure, and the first failure recorded in it is the
/// operation's.
class OperationScope {
 public:
  /// `name` outlives the scope.
  OperationScope(const HandDiagnostics& hand, const char* name);
  OperationScope(const Korvane& hand, const char* name);
  ~OperationScope();
  OperationScope(const OperationScope&) = delete;
  OperationScope& operator=(const OperationScope&) = delete;

  /// The operation succeeded, whatever failed on the way, such as the requests that a hand left
  /// unanswered while it restarted.
  void Succeed();

 private:
  diagnostics_internal::OperationRecord* record_;
};

/// Puts the calling thread's present operation on a hand aside while it lives, with those who watch
/// it: what is called meanwhile is no part of it.
class OperationAside {
 public:
  explicit OperationAside(const HandDiagnostics& hand);
  ~OperationAside();
  OperationAside(const OperationAside&) = delete;
  OperationAside& operator=(const OperationAside&) = delete;

 private:
  diagnostics_internal::OperationRecord* record_;
  std::unique_ptr<diagnostics_internal::OperationRecord> kept_;
};

/// A function of the application that an operation calls, and that may call others on the hand.
/// Empty if it is.
template <class... Arguments>
std::function<void(Arguments...)> OutsideOperation(const HandDiagnostics& hand,
                                                   std::function<void(Arguments...)> function) {
  if (!function) return function;
  return [&hand, function = std::move(function)](Arguments... arguments) {
    const OperationAside aside(hand);
    function(arguments...);
  };
}

/// Records how the calling thread's present operation on the hand failed.
void RecordFailure(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                   int system_error = 0);
void RecordFailure(const Korvane& hand, FailureKind kind, const std::string& text,
                   int system_error = 0);

/// The same, of a failure for which no line has been logged yet: `text` stands for it until one is.
void NoteFailure(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                 int system_error = 0);

/// Gives what was noted last the line that was logged for it. Nothing if that wasn't the
/// operation's first failure, or has its line.
void AmendFailure(const HandDiagnostics& hand, const std::string& line);

/// As RecordFailure, of an operation that tells it by an exception.
void RecordThrown(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                  int system_error = 0);

/// As RecordFailure, with what an exception of the link says of itself. `text` is the line that was
/// logged.
void RecordFailure(const HandDiagnostics& hand, const std::exception& error,
                   const std::string& text);

/// Records an operation that a hand doesn't have. Called by the defaults, which do nothing else.
void RecordNotSupported(const Korvane& hand, const char* operation);

}  // namespace talvera::korvane
