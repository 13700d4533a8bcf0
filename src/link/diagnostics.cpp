#include "link/diagnostics.h"

#include <algorithm>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

#include "korvane.h"
#include "link/observable_link.h"
#include "util/text.h"

namespace talvera::korvane {
namespace diagnostics_internal {

/// How a failure comes to the application: by a line that was logged, by one that is still to be,
/// or by an exception.
enum class HowTold { kByLine, kByLaterLine, kByException };

/// What one thread knows of its operations on one hand.
struct OperationRecord {
  /// The hand's own count, and which hand it is.
  std::weak_ptr<BadReplyCount> hand;
  /// The outermost operation, and how many are open inside each other.
  const char* operation = "";
  int depth = 0;
  Failure last;
  /// `last` has a text of its own until its line is logged.
  bool awaits_line = false;
  FailureWatch* watch = nullptr;

  void Begin(const char* name) {
    if (depth++ > 0) return;
    operation = name;
    last.kind = FailureKind::NONE;
    if (watch != nullptr) watch->thrown_ = false;
  }

  /// Only the first failure of an operation counts.
  void Fail(FailureKind kind, const std::string& text, int system_error, HowTold how) {
    const bool first = last.kind == FailureKind::NONE;
    if (first) StoreFailure(last, kind, system_error, operation, text);
    awaits_line = first && how == HowTold::kByLaterLine;
    if (watch != nullptr && how == HowTold::kByException) watch->thrown_ = true;
  }

  void Amend(const std::string& line) {
    if (awaits_line && last.kind != FailureKind::NONE) {
      StoreFailure(last, last.kind, last.system_error, last.operation, line);
    }
    awaits_line = false;
  }

  /// A failure is counted, and a watch learns of it, when its operation is over, as an operation
  /// may still succeed.
  void End() {
    if (--depth > 0) return;
    if (last.kind == FailureKind::BAD_REPLY) CountBadReply();
    const bool first = watch != nullptr && watch->first_.kind == FailureKind::NONE;
    if (!first || last.kind == FailureKind::NONE) return;
    StoreFailure(watch->first_, last.kind, last.system_error, last.operation, last.text);
  }

  void AddWatch(FailureWatch& added) {
    added.outer_ = watch;
    watch = &added;
  }

  void RemoveWatch(const FailureWatch& removed) { watch = removed.outer_; }

 private:
  /// Where there is no memory for its texts a failure is told without them.
  template <class Name>
  static void StoreFailure(Failure& where, FailureKind kind, int system_error, const Name& name,
                           const std::string& text) noexcept {
    where.kind = kind;
    where.system_error = system_error;
    try {
      where.operation = name;
      where.text = text;
    } catch (const std::bad_alloc&) {
      where.operation.clear();
      where.text.clear();
    }
  }

  void CountBadReply() const {
    if (const auto count = hand.lock()) ++*count;
  }
};

}  // namespace diagnostics_internal

namespace {

using diagnostics_internal::HowTold;
using diagnostics_internal::OperationRecord;

/// The records of one thread, each in its place as long as the hand lives.
class ThreadRecords {
 public:
  OperationRecord& Of(const std::shared_ptr<BadReplyCount>& hand) {
    for (const auto& record : records_) {
      if (IsOf(*record, hand)) return *record;
    }
    ForgetGoneHands();
    records_.push_back(std::make_unique<OperationRecord>());
    records_.back()->hand = hand;
    return *records_.back();
  }

 private:
  static bool IsOf(const OperationRecord& record, const std::shared_ptr<BadReplyCount>& hand) {
    return !record.hand.owner_before(hand) && !hand.owner_before(record.hand);
  }

  void ForgetGoneHands() {
    const auto gone = [](const auto& record) { return record->hand.expired(); };
    records_.erase(std::remove_if(records_.begin(), records_.end(), gone), records_.end());
  }

  std::vector<std::unique_ptr<OperationRecord>> records_;
};

/// Null once the thread's other objects are being destroyed: objects with static storage may call
/// hands later than that, and nobody can ask any more how it ended.
ThreadRecords* RecordsOfThisThread() {
  // Without destructors of their own, so that both can be looked at until the thread is over.
  static thread_local ThreadRecords* records = nullptr;
  static thread_local bool over = false;
  struct Owner {
    ~Owner() {
      delete records;
      records = nullptr;
      over = true;
    }
  };
  if (records == nullptr && !over) {
    static thread_local const Owner owner;
    static_cast<void>(owner);
    records = new ThreadRecords;
  }
  return records;
}

void Fail(const HandDiagnostics& hand, FailureKind kind, const std::string& text, int system_error,
          HowTold how) {
  OperationRecord* const record = hand.Record();
  if (record != nullptr) record->Fail(kind, text, system_error, how);
}

const ObservableHand* Observable(const Korvane& hand) {
  return dynamic_cast<const ObservableHand*>(&hand);
}

ObservableLink* LinkOf(const Korvane& hand) {
  const ObservableHand* const observable = Observable(hand);
  return observable != nullptr ? observable->Observable() : nullptr;
}

OperationRecord* RecordOf(const Korvane& hand) {
  const ObservableHand* const observable = Observable(hand);
  return observable != nullptr ? observable->Diagnostics().Record() : nullptr;
}

}  // namespace

LinkError AsLinkError(const std::exception& error) {
  const auto* const link_error = dynamic_cast<const LinkError*>(&error);
  return link_error != nullptr ? *link_error : LinkError(FailureKind::SEND_FAILED, error.what());
}

OperationRecord* HandDiagnostics::Record() const {
  ThreadRecords* const records = RecordsOfThisThread();
  return records != nullptr ? &records->Of(bad_replies_) : nullptr;
}

OperationScope::OperationScope(const HandDiagnostics& hand, const char* name)
    : record_(hand.Record()) {
  if (record_ != nullptr) record_->Begin(name);
}

OperationScope::OperationScope(const Korvane& hand, const char* name) : record_(RecordOf(hand)) {
  if (record_ != nullptr) record_->Begin(name);
}

OperationScope::~OperationScope() {
  if (record_ != nullptr) record_->End();
}

OperationAside::OperationAside(const HandDiagnostics& hand) : record_(hand.Record()) {
  if (record_ == nullptr) return;
  OperationRecord fresh;
  fresh.hand = record_->hand;
  kept_ = std::make_unique<OperationRecord>(std::exchange(*record_, std::move(fresh)));
}

OperationAside::~OperationAside() {
  if (record_ != nullptr) *record_ = std::move(*kept_);
}

void OperationScope::Succeed() {
  if (record_ != nullptr) record_->last.kind = FailureKind::NONE;
}

void RecordFailure(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                   int system_error) {
  Fail(hand, kind, text, system_error, HowTold::kByLine);
}

void NoteFailure(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                 int system_error) {
  Fail(hand, kind, text, system_error, HowTold::kByLaterLine);
}

void AmendFailure(const HandDiagnostics& hand, const std::string& line) {
  if (OperationRecord* const record = hand.Record()) record->Amend(line);
}

void RecordThrown(const HandDiagnostics& hand, FailureKind kind, const std::string& text,
                  int system_error) {
  Fail(hand, kind, text, system_error, HowTold::kByException);
}

void RecordFailure(const HandDiagnostics& hand, const std::exception& error,
                   const std::string& text) {
  const LinkError failed = AsLinkError(error);
  RecordFailure(hand, failed.Kind(), text, failed.SystemError());
}

void RecordNotSupported(const Korvane& hand, const char* operation) {
  const OperationScope scope(hand, operation);
  RecordFailure(hand, FailureKind::NOT_SUPPORTED,
                Compose(operation, " is not supported by this hand on its link"));
}

void RecordFailure(const Korvane& hand, FailureKind kind, const std::string& text,
                   int system_error) {
  if (const auto* const observable = Observable(hand)) {
    RecordFailure(observable->Diagnostics(), kind, text, system_error);
  }
}

// --- What applications call -----------------------------------------------------------------

diagnostics_internal::FailureWatch::FailureWatch(const Korvane& hand) : record_(RecordOf(hand)) {
  if (record_ != nullptr) record_->AddWatch(*this);
}

diagnostics_internal::FailureWatch::~FailureWatch() {
  if (record_ != nullptr) record_->RemoveWatch(*this);
}

Failure LastFailure(const Korvane& hand) {
  const OperationRecord* const record = RecordOf(hand);
  const bool failed = record != nullptr && record->last.kind != FailureKind::NONE;
  return failed ? record->last : Failure();
}

LinkStatistics StatisticsOf(const Korvane& hand) {
  LinkStatistics statistics;
  const ObservableLink* const link = LinkOf(hand);
  if (link == nullptr) return statistics;
  const LinkCounters& counters = link->counters_;
  statistics.requests = counters.requests;
  statistics.replies = counters.replies;
  statistics.send_failures = counters.send_failures;
  statistics.timeouts = counters.timeouts;
  statistics.bad_replies = Observable(hand)->Diagnostics().BadReplies();
  statistics.unmatched_frames = counters.unmatched_frames;
  statistics.last_reply = std::chrono::steady_clock::time_point(counters.last_reply.load());
  statistics.link_lost = counters.link_lost;
  return statistics;
}

void ObserveFrames(Korvane& hand, std::function<void(const FrameEvent&)> tap) {
  ObservableLink* const link = LinkOf(hand);
  if (link != nullptr) link->tap_.Set(std::move(tap));
}

void SetReceiving(Korvane& hand, Receiving how) {
  ObservableLink* const link = LinkOf(hand);
  if (link != nullptr) link->SetReceiving(how);
}

void SetDefaultReceiving(Receiving how) { DefaultReceiving() = how; }

const char* ToString(FailureKind kind) {
  static constexpr const char* kNames[] = {"NONE",      "BAD_ARGUMENT", "NOT_SUPPORTED",
                                           "NO_LINK",   "SEND_FAILED",  "NO_REPLY",
                                           "BAD_REPLY", "REFUSED"};
  const auto index = static_cast<std::size_t>(kind);
  return index < std::size(kNames) ? kNames[index] : "unknown";
}

}  // namespace talvera::korvane
