#pragma once

#include <cxxabi.h>
#include <korvane_open.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <exception>
#include <future>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "held_hand.h"

// How Python calls a hand: each operation goes through Call, which lets other Python threads run
// meanwhile, and turns what failed into an exception.

namespace korvane_python {

namespace py = pybind11;
namespace kv = talvera::korvane;

/// How long Ctrl-C may take to be seen.
constexpr auto kSlice = std::chrono::milliseconds(50);

/// Lets other Python threads run while it lives. Where the interpreter ends meanwhile, Python
/// unwinds a daemon thread that wants the GIL back, and with it every destructor that lets go of
/// Python's objects, without the GIL. So such a thread stays here until the process is gone.
class GilRelease {
 public:
  GilRelease() = default;
  GilRelease(const GilRelease&) = delete;
  GilRelease& operator=(const GilRelease&) = delete;
  ~GilRelease() {
    try {
      PyEval_RestoreThread(state_);
    } catch (const abi::__forced_unwind&) {
      for (;;) pause();
    }
  }

 private:
  PyThreadState* const state_ = PyEval_SaveThread();
};

/// Runs `work`, which must not touch Python, while other Python threads run.
template <class F>
auto WithoutGil(F&& work) {
  const GilRelease released;
  return std::forward<F>(work)();
}

/// Throws what a signal handler of Python threw, such as KeyboardInterrupt.
inline void CheckSignals() {
  if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

/// Throws the exception of korvane.errors that stands for the failure.
[[noreturn]] void Raise(const kv::Failure& failure, const std::string& hand);

/// The same for a call that failed: where the link has gone, that is what is raised.
[[noreturn]] void RaiseFailed(const kv::KorvaneBase& hand, kv::Failure failure,
                              const std::string& name);

/// Runs `work`, which must not touch Python, on a thread of its own, so that Ctrl-C ends the wait
/// for it: what it returns is dropped then.
template <class F>
auto InBackground(F work) {
  std::packaged_task<std::invoke_result_t<F>()> task(std::move(work));
  auto result = task.get_future();
  std::thread(std::move(task)).detach();
  while (WithoutGil([&] { return result.wait_for(kSlice); }) != std::future_status::ready) {
    CheckSignals();
  }
  return result.get();
}

/// A hand as Python holds it. Its members are used with the GIL only.
class Handle {
 public:
  explicit Handle(kv::ServiceHand opened);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  /// The hand goes when the last call on it has ended.
  void Close();
  bool IsClosed() const { return hand_ == nullptr; }
  bool IsUpdating() const { return hand_ != nullptr && hand_->updating; }
  /// Throws if the handle is closed, if it came here by a fork, and while an update runs.
  std::shared_ptr<HeldHand> Borrow() const;
  [[noreturn]] void RaiseHere(kv::FailureKind kind, const std::string& operation,
                              const std::string& text) const;

  const kv::HandAddress& Address() const { return address_; }
  std::string Name() const { return address_.ToString(); }
  const kv::ModelInfo& Info() const { return kv::InfoOf(*address_.model); }
  std::size_t Motors() const { return static_cast<std::size_t>(Info().positions); }

 private:
  kv::HandAddress address_;
  std::shared_ptr<HeldHand> hand_;
  int forks_;  ///< Before it was made.
};

/// Calls of several Python threads go to the hand one after the other.
inline std::unique_lock<std::timed_mutex> WaitForTurn(HeldHand& hand) {
  std::unique_lock<std::timed_mutex> turn(hand.calls, std::try_to_lock);
  while (!turn.owns_lock()) {
    if (!WithoutGil([&] { return turn.try_lock_for(kSlice); })) CheckSignals();
  }
  return turn;
}

/// The hand as a class of the library; null if it isn't of that class.
template <class Face>
Face* AsFace(kv::KorvaneBase& hand) {
  if constexpr (std::is_convertible_v<kv::KorvaneBase*, Face*>) {
    return &hand;
  } else {
    return dynamic_cast<Face*>(&hand);
  }
}

/// What `operation` returns when it is called with the hand as a Face, a class of the library.
template <class Face, class F>
auto Call(const Handle& handle, const char* name, F&& operation) {
  const auto held = handle.Borrow();
  kv::KorvaneBase& hand = held->For<Face>();
  Face* const face = AsFace<Face>(hand);
  if (face == nullptr) {
    handle.RaiseHere(kv::FailureKind::NOT_SUPPORTED, name,
                     std::string("a ") + handle.Info().name + " doesn't have it");
  }
  auto turn = WaitForTurn(*held);
  auto outcome = WithoutGil([&] {
    const auto mine = std::move(turn);
    return Checked(hand, [&](kv::KorvaneBase&) { return operation(*face); });
  });
  if (!outcome) RaiseFailed(hand, outcome.failure(), handle.Name());
  return *std::move(outcome);
}

// --- From Python -------------------------------------------------------------------------------

/// What Python gives for an argument of type T: any number, and any sequence of numbers.
template <class T>
struct Given {
  using Type = std::int64_t;
};
template <class T>
struct Given<std::vector<T>> {
  using Type = std::vector<double>;
};

template <class T, class Number>
T Narrow(const Handle& handle, const char* name, Number number) {
  const auto rounded = std::round(static_cast<double>(number));
  const bool fits =
      rounded >= std::numeric_limits<T>::min() && rounded <= std::numeric_limits<T>::max();
  if (!fits) {
    handle.RaiseHere(kv::FailureKind::BAD_ARGUMENT, name,
                     py::str(py::cast(number)).cast<std::string>() + " is beyond " +
                         std::to_string(std::numeric_limits<T>::min()) + " to " +
                         std::to_string(std::numeric_limits<T>::max()));
  }
  return static_cast<T>(rounded);
}

/// Throws unless there are as many values as the hand has motors.
void RequireOneForEachMotor(const Handle& handle, const char* name, std::size_t count);

template <class Face, class T>
struct Taken {
  static T From(const Handle& handle, const char* name, std::int64_t number) {
    if constexpr (std::is_enum_v<T>) {
      return static_cast<T>(Narrow<std::underlying_type_t<T>>(handle, name, number));
    } else {
      return Narrow<T>(handle, name, number);
    }
  }
};
template <class Face, class T>
struct Taken<Face, std::vector<T>> {
  static std::vector<T> From(const Handle& handle, const char* name,
                             const std::vector<double>& numbers) {
    if constexpr (std::is_same_v<T, double>) {
      return numbers;
    } else {
      if (std::is_same_v<Face, kv::KorvaneBase>) {
        RequireOneForEachMotor(handle, name, numbers.size());
      }
      std::vector<T> values;
      values.reserve(numbers.size());
      for (const double number : numbers) values.push_back(Narrow<T>(handle, name, number));
      return values;
    }
  }
};

// --- To Python ---------------------------------------------------------------------------------

template <class T>
py::array_t<T> ToArray(const std::vector<T>& values) {
  py::array_t<T> array(static_cast<py::ssize_t>(values.size()));
  std::copy(values.begin(), values.end(), array.mutable_data());
  return array;
}

inline py::object ToPython(const kv::Version& version) {
  return py::make_tuple(version.major, version.minor, version.patch, version.build);
}
py::object ToPython(const kv::AxisLimitPos& limits);
py::object ToPython(const kv::SetAllAxisPosResponse& reply);
py::object ToPython(const kv::ProductSerialNumber& number);
py::object ToPython(const kv::FwVersion& version);

template <class Face>
struct Returned {
  template <class T>
  static py::object From(const Handle&, const char*, const T& value) {
    if constexpr (std::is_enum_v<T>) {
      return py::int_(static_cast<int>(value));
    } else if constexpr (std::is_arithmetic_v<T>) {
      return py::cast(value);
    } else {
      return ToPython(value);
    }
  }
  /// What tells a value for each motor has just as many: what a bus pads goes.
  template <class T>
  static py::object From(const Handle& handle, const char* name, std::vector<T> values) {
    if (std::is_same_v<Face, kv::KorvaneBase> && !std::is_same_v<T, double>) {
      if (values.size() < handle.Motors()) {
        handle.RaiseHere(kv::FailureKind::BAD_REPLY, name,
                         "the hand told " + std::to_string(values.size()) + " values of " +
                             std::to_string(handle.Motors()));
      }
      values.resize(handle.Motors());
    }
    return ToArray(values);
  }
  /// A setter that isn't confirmed has failed.
  static py::object From(const Handle& handle, const char* name, bool confirmed) {
    if (!confirmed) {
      handle.RaiseHere(kv::FailureKind::REFUSED, name, "the hand didn't confirm it");
    }
    return py::none();
  }
};

// --- Operations as rows ------------------------------------------------------------------------

/// `def(python name, the library's name, operation)` for the operations of one class of the
/// library.
template <class Face>
class Operations {
 public:
  explicit Operations(py::class_<Handle>& python_class) : class_(python_class) {}

  template <class R, class... A>
  void operator()(const char* python, const char* name, R (Face::*operation)(A...)) const {
    Define<R, std::decay_t<A>...>(python, name, operation);
  }
  template <class R, class... A>
  void operator()(const char* python, const char* name, R (Face::*operation)(A...) const) const {
    Define<R, std::decay_t<A>...>(python, name, operation);
  }

 private:
  template <class R, class... A, class Operation>
  void Define(const char* python, const char* name, Operation operation) const {
    class_.def(python, [name, operation](const Handle& handle, typename Given<A>::Type... given) {
      return Run<R, A...>(handle, name, operation, Taken<Face, A>::From(handle, name, given)...);
    });
  }

  template <class R, class... A, class Operation>
  static py::object Run(const Handle& handle, const char* name, Operation operation, A... values) {
    const auto call = [&](Face& face) { return (face.*operation)(values...); };
    if constexpr (std::is_void_v<R>) {
      Call<Face>(handle, name, call);
      return py::none();
    } else {
      return Returned<Face>::From(handle, name, Call<Face>(handle, name, call));
    }
  }

  py::class_<Handle>& class_;
};

}  // namespace korvane_python
