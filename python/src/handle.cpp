#include <pthread.h>

#include "engine.h"

namespace korvane_python {
namespace {

bool InterpreterEnds() {
#if PY_VERSION_HEX >= 0x030D0000
  return Py_IsFinalizing() != 0;
#else
  return _Py_IsFinalizing() != 0;
#endif
}

/// How many forks lie between this process and the one that loaded the module.
int Forks() {
  static std::atomic<int> forks = 0;
  [[maybe_unused]] static const int counted = pthread_atfork(nullptr, nullptr, [] { ++forks; });
  return forks;
}

}  // namespace

void Raise(const kv::Failure& failure, const std::string& hand) {
  const py::object error =
      py::module_::import("korvane.errors")
          .attr("error_of")(ToString(failure.kind), failure.operation, failure.text,
                            AdviceOn(failure), failure.system_error, hand);
  PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
  throw py::error_already_set();
}

void RaiseFailed(const kv::KorvaneBase& hand, kv::Failure failure, const std::string& name) {
  if (StatisticsOf(hand).link_lost && failure.kind != kv::FailureKind::BAD_ARGUMENT) {
    failure.kind = kv::FailureKind::NO_LINK;
    failure.text = failure.operation + ": the link has gone; open the hand anew";
  }
  Raise(failure, name);
}

Handle::Handle(kv::ServiceHand opened)
    : address_(opened.address),
      hand_(std::make_shared<HeldHand>(std::move(opened))),
      forks_(Forks()) {}

Handle::~Handle() { Close(); }

void Handle::Close() {
  auto hand = std::exchange(hand_, nullptr);
  if (hand == nullptr) return;
  if (forks_ != Forks()) {
    // The receive thread is the parent's; waiting for it here would never end.
    new std::shared_ptr<HeldHand>(std::move(hand));  // NOLINT(bugprone-unused-raii)
    return;
  }
  // Ends the receive thread, which takes a while.
  if (PyGILState_Check() == 0 || InterpreterEnds()) return;
  WithoutGil([&] { hand.reset(); });
}

std::shared_ptr<HeldHand> Handle::Borrow() const {
  const auto refuse = [this](const char* text) { RaiseHere(kv::FailureKind::NO_LINK, "", text); };
  if (hand_ == nullptr) refuse("it is closed; open it anew");
  if (forks_ != Forks()) refuse("it was opened before a fork; open it anew in this process");
  if (hand_->updating) refuse("an update of its firmware is running; wait for its end");
  return hand_;
}

void Handle::RaiseHere(kv::FailureKind kind, const std::string& operation,
                       const std::string& text) const {
  Raise({kind, operation, operation.empty() ? text : operation + ": " + text, 0}, Name());
}

void RequireOneForEachMotor(const Handle& handle, const char* name, std::size_t count) {
  if (!handle.Info().has_motors || count == handle.Motors()) return;
  handle.RaiseHere(kv::FailureKind::BAD_ARGUMENT, name,
                   std::string("a ") + handle.Info().name + " has " +
                       std::to_string(handle.Motors()) + " motors; " + std::to_string(count) +
                       " values were given");
}

}  // namespace korvane_python
