#include <condition_variable>
#include <deque>

#include "definitions.h"

namespace korvane_python {
namespace {

using kv::OtaProgressStatus;

std::atomic<int>& RunningUpdates() {
  static std::atomic<int> count = 0;
  return count;
}

struct Event {
  int current;
  int total;
  OtaProgressStatus status;
};

/// An update on a thread of its own, and what it reports on its way to the caller's. An update that
/// nobody waits for any more goes on to its end: a hand whose update breaks off has no firmware.
class UpdateRun {
 public:
  void Report(int current, int total, OtaProgressStatus status) {
    const std::lock_guard lock(mutex_);
    if (!is_watched_) return;
    events_.push_back({current, total, status});
    changed_.notify_one();
  }

  void End(kv::Failure failure) {
    const std::lock_guard lock(mutex_);
    failure_ = std::move(failure);
    ended_ = true;
    changed_.notify_one();
  }

  /// What was reported, after a short wait if there is nothing yet. Nothing more comes where
  /// `ended` is true.
  std::deque<Event> Take(bool& ended) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kSlice, [this] { return ended_ || !events_.empty(); });
    ended = ended_;
    return std::exchange(events_, {});
  }

  void LeaveAlone() {
    const std::lock_guard lock(mutex_);
    is_watched_ = false;
  }

  /// Its kind is NONE after success.
  const kv::Failure& Why() const { return failure_; }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::deque<Event> events_;
  kv::Failure failure_;
  bool ended_ = false;
  bool is_watched_ = true;
};

void Send(const std::shared_ptr<HeldHand>& held, const std::string& path,
          const std::shared_ptr<UpdateRun>& run) {
  const std::lock_guard turn(held->calls);
  const auto outcome = Checked(held->For<kv::KorvaneBase>(), [&](kv::KorvaneBase& hand) {
    hand.UpdateFirmware(path, [run](int current, int total, OtaProgressStatus status) {
      run->Report(current, total, status);
    });
  });
  held->updating = false;
  run->End(outcome.failure());
}

void Start(const std::shared_ptr<HeldHand>& hand, const std::string& path,
           const std::shared_ptr<UpdateRun>& run) {
  hand->updating = true;
  ++RunningUpdates();
  try {
    std::thread([held = std::shared_ptr<HeldHand>(hand), path, run]() mutable {
      Send(held, path, run);
      held.reset();  // the hand may go with it
      --RunningUpdates();
    }).detach();
  } catch (...) {  // there is no thread to be had, so nothing is running
    hand->updating = false;
    --RunningUpdates();
    throw;
  }
}

/// Whether the hand reported that it is done, and the code of the last failure that it reported.
struct Result {
  bool complete = false;
  int code = 0;

  void Take(const Event& event) {
    complete = complete || event.status == OtaProgressStatus::COMPLETE;
    if (event.status == OtaProgressStatus::FAILED) code = event.current;
  }
};

Result Watch(UpdateRun& run, const py::object& progress) {
  Result result;
  for (bool ended = false; !ended;) {
    for (const Event& event : WithoutGil([&] { return run.Take(ended); })) {
      result.Take(event);
      if (!progress.is_none()) {
        progress(event.current, event.total, static_cast<int>(event.status));
      }
    }
    CheckSignals();
  }
  return result;
}

py::tuple Update(const Handle& handle, const std::string& path, const py::object& progress) {
  const auto run = std::make_shared<UpdateRun>();
  Start(handle.Borrow(), path, run);
  try {
    const Result result = Watch(*run, progress);
    if (run->Why().kind != kv::FailureKind::NONE) Raise(run->Why(), handle.Name());
    return py::make_tuple(result.complete, result.code);
  } catch (...) {
    run->LeaveAlone();
    throw;
  }
}

}  // namespace

void DefineUpdate(py::module_& module, py::class_<Handle>& hand) {
  hand.def("update", &Update);
  module.def("running_updates", [] { return RunningUpdates().load(); });
  // The child of a fork has none of the threads.
  module.def("forget_updates", [] { RunningUpdates() = 0; });
}

}  // namespace korvane_python
