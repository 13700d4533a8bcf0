#pragma once

#include <string>

namespace talvera::korvane {

/// A shared library that may or may not be installed. Its functions are bound once, when the
/// library is first used: to a definition that the process already has (a program may link the
/// library, or a stand-in for it), otherwise through dlopen. If neither is there, one line on the
/// standard error stream says what was looked for and where, and the functions answer failure.
class ClosedLibrary {
 public:
  explicit ClosedLibrary(std::string file_name);

  /// Null if the library or the function isn't there.
  void* Find(const char* function);

  /// The line that says why it isn't there; empty if it is, or if nobody needed it.
  const std::string& WhyMissing() const { return why_missing_; }

 private:
  void Open();

  std::string file_name_;
  void* handle_ = nullptr;
  bool tried_ = false;
  std::string why_missing_;
};

template <class Signature, int kFailure>
class LibraryFunction;

/// One function of a closed library; kFailure is what it answers when it isn't there.
template <class Result, class... Args, int kFailure>
class LibraryFunction<Result(Args...), kFailure> {
 public:
  LibraryFunction(ClosedLibrary& library, Result (*in_process)(Args...), const char* name)
      : function_(in_process != nullptr
                      ? in_process
                      : reinterpret_cast<Result (*)(Args...)>(library.Find(name))) {}

  Result operator()(Args... args) const {
    return function_ != nullptr ? function_(args...) : Result{kFailure};
  }

 private:
  Result (*function_)(Args...);
};

}  // namespace talvera::korvane
