#include "can/closed_library.h"

#include <dlfcn.h>

#include <cstdlib>
#include <utility>

#include "util/log.h"

namespace talvera::korvane {

ClosedLibrary::ClosedLibrary(std::string file_name) : file_name_(std::move(file_name)) {}

void* ClosedLibrary::Find(const char* function) {
  if (!tried_) Open();
  if (handle_ == nullptr) return nullptr;
  void* const found = dlsym(handle_, function);
  if (found == nullptr) LogError(Compose("[ERROR]: ", file_name_, " has no function ", function));
  return found;
}

void ClosedLibrary::Open() {
  tried_ = true;
  handle_ = dlopen(file_name_.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ != nullptr) return;
  const char* const reason = dlerror();
  const char* const path = std::getenv("LD_LIBRARY_PATH");
  why_missing_ = Compose("[ERROR]: ", file_name_,
                         " not found: looked in the process itself, in LD_LIBRARY_PATH (",
                         path != nullptr ? path : "not set",
                         ") and in the system's library directories; the loader says: ",
                         reason != nullptr ? reason : "nothing");
  LogError(why_missing_);
}

}  // namespace talvera::korvane
