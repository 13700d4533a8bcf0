#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "korvane_export.h"

/// What went wrong, for programs. An operation that fails returns a value that may look like a
/// result (0, -1, an empty vector, on a serial link an old reading) and writes a line; the
/// functions of this header say whether the value is one, and if not, why.
///
/// They work for every operation of every hand on every link and change nothing: not a value, not a
/// line. What is counted for them costs about 60 ns a request, which shows on no link. None of them
/// blocks.
namespace talvera::korvane {

class Korvane;

/// How an operation failed.
enum class FailureKind {
  NONE,           ///< It didn't, or there was none.
  BAD_ARGUMENT,   ///< Refused before anything was sent: an index, a size, a range, a file.
  NOT_SUPPORTED,  ///< This model, or this link, doesn't have the operation.
  NO_LINK,        ///< The hand has no link: it couldn't be opened, or it is closed.
  SEND_FAILED,    ///< The request could not be sent.
  NO_REPLY,       ///< The request went out, and nothing came back in time.
  /// Something came back that can't be the answer, or only a part of it: a reading whose frame was
  /// cut short, the rest of which reads as 0. Over a serial link any
  /// frame ends the wait, also one that the hand sent unasked.
  BAD_REPLY,
  REFUSED,  ///< The hand answered that it won't.
};

/// "NO_REPLY" and the like.
KORVANE_EXPORT const char* ToString(FailureKind kind);

/// One failed operation.
struct Failure {
  FailureKind kind = FailureKind::NONE;  ///< How it failed.
  std::string operation;  ///< What was called, such as "GetJointMotorPosi"; "Open" for a link.
  std::string text;       ///< The line that was logged for it; a text of its own where none was.
  int system_error = 0;   ///< errno, where the system gave one; otherwise 0.
};

/// What a person can do about it, in one or a few lines without an end; empty where nothing is
/// known that helps. Any thread.
KORVANE_EXPORT std::string AdviceOn(const Failure& failure);

/// How the calling thread's last operation on this hand ended; `kind` is NONE if it succeeded, and
/// if this thread has called none. Making a hand whose link can't be opened counts as an operation
/// of the thread that made it. An operation that is made of others, such as GetAllJointAngles,
/// counts as one, and its first failure tells; one that the callback of an update calls counts by
/// itself. Any thread; the hand must still exist.
KORVANE_EXPORT Failure LastFailure(const Korvane& hand);

/// What has happened on a hand's link since the hand was made.
struct LinkStatistics {
  std::uint64_t requests = 0;       ///< That a reply was awaited for, unsent ones included.
  std::uint64_t replies = 0;        ///< That came in time.
  std::uint64_t send_failures = 0;  ///< Frames that couldn't be sent, awaited or not.
  std::uint64_t timeouts = 0;       ///< Requests without a reply in time.
  std::uint64_t bad_replies = 0;    ///< Operations that ended with BAD_REPLY.
  /// Received frames that no request waited for. Over a serial link any frame answers a request, by
  /// events any with its command: the others, and those that came while none waited.
  std::uint64_t unmatched_frames = 0;
  /// When the last reply came; the epoch if there was none.
  std::chrono::steady_clock::time_point last_reply{};
  /// The port or interface is gone, and this hand object won't get it back, except over a serial
  /// link by an update that reconnects. The USB adapters don't tell: false there.
  bool link_lost = false;
};

/// The counts of this hand's link; all zero for a hand that has none. Any thread, at any time.
KORVANE_EXPORT LinkStatistics StatisticsOf(const Korvane& hand);

namespace diagnostics_internal {

struct OperationRecord;

/// Watches what the calling thread does with one hand while it lives. See Checked.
class KORVANE_EXPORT FailureWatch {
 public:
  /// Begins to watch.
  explicit FailureWatch(const Korvane& hand);
  ~FailureWatch();
  FailureWatch(const FailureWatch&) = delete;
  FailureWatch& operator=(const FailureWatch&) = delete;

  /// The first failure since this object was made.
  const Failure& First() const { return first_; }
  /// The last operation threw what it documents.
  bool WasThrown() const { return thrown_; }

 private:
  friend struct OperationRecord;

  OperationRecord* record_;
  FailureWatch* outer_ = nullptr;
  Failure first_;
  bool thrown_ = false;
};

}  // namespace diagnostics_internal

/// A value, or the failure in its place.
///
/// A plain value type: copies are independent, and one object belongs to one thread at a time.
template <class T>
class Outcome {
 public:
  /// A value.
  Outcome(T value) : value_(std::move(value)) {}
  /// A failure, whose `kind` isn't NONE.
  Outcome(Failure failure) : failure_(std::move(failure)) {}

  /// True if there is a value.
  explicit operator bool() const noexcept { return value_.has_value(); }

  /// The value. Throws std::logic_error, with the failure's text, if there is none.
  T& operator*() & { return Require(), *value_; }
  /// The value, as above.
  const T& operator*() const& { return Require(), *value_; }
  /// The value, as above.
  T&& operator*() && { return Require(), *std::move(value_); }
  /// The value, as above.
  T* operator->() { return &**this; }
  /// The value, as above.
  const T* operator->() const { return &**this; }

  /// The value, or `other` if there is none.
  template <class U>
  T value_or(U&& other) const& {
    return value_ ? *value_ : static_cast<T>(std::forward<U>(other));
  }
  /// The value, or `other` if there is none.
  template <class U>
  T value_or(U&& other) && {
    return value_ ? *std::move(value_) : static_cast<T>(std::forward<U>(other));
  }

  /// Why there is no value; its kind is NONE if there is one.
  const Failure& failure() const noexcept { return failure_; }

 private:
  void Require() const {
    if (!value_) throw std::logic_error("no value: " + failure_.text);
  }

  std::optional<T> value_;
  Failure failure_;
};

/// The same for operations that return nothing.
template <>
class Outcome<void> {
 public:
  /// Success.
  Outcome() = default;
  /// A failure, whose `kind` isn't NONE.
  Outcome(Failure failure) : failure_(std::move(failure)) {}

  /// True on success.
  explicit operator bool() const noexcept { return failure_.kind == FailureKind::NONE; }

  /// Does nothing. Throws std::logic_error, with the failure's text, after a failure.
  void operator*() const {
    if (!*this) throw std::logic_error("no value: " + failure_.text);
  }

  /// What failed; its kind is NONE on success.
  const Failure& failure() const noexcept { return failure_; }

 private:
  Failure failure_;
};

/// Runs `operation(hand)` and gives what it returns, or the failure in its place:
///
///     const auto position = Checked(*hand, [](auto& h) { return h.GetJointMotorPosi(3); });
///     if (!position) std::cerr << position.failure().text << '\n';
///
/// If `operation` calls several operations of the hand, the first that fails decides. What an
/// operation of the hand throws (std::invalid_argument for a finger, std::bad_optional_access from
/// MixCtrlJointMotor, what the serial library throws during an update) becomes a failure; what
/// `operation` throws itself is passed on, unless it has caught one of the hand's before. Blocks as
/// long as `operation`.
template <class Hand, class F>
auto Checked(Hand& hand, F&& operation) {
  using Result = std::decay_t<std::invoke_result_t<F, Hand&>>;
  const diagnostics_internal::FailureWatch watch(hand);
  try {
    if constexpr (std::is_void_v<Result>) {
      std::forward<F>(operation)(hand);
      return watch.First().kind == FailureKind::NONE ? Outcome<void>()
                                                     : Outcome<void>(watch.First());
    } else {
      Result result = std::forward<F>(operation)(hand);
      return watch.First().kind == FailureKind::NONE ? Outcome<Result>(std::move(result))
                                                     : Outcome<Result>(watch.First());
    }
  } catch (...) {
    if (!watch.WasThrown()) throw;
    return Outcome<Result>(watch.First());
  }
}

}  // namespace talvera::korvane
