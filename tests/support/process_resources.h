#pragma once

#include <malloc.h>
#include <sys/types.h>

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace talvera::korvane::test {

#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KORVANE_TEST_SANITIZED
#endif
#endif

/// How often something is made and destroyed to see that it leaves nothing behind. Under a
/// sanitizer, which tells of each single leak and is slow, less often.
#ifdef KORVANE_TEST_SANITIZED
inline constexpr int kManyCycles = 50;
#else
inline constexpr int kManyCycles = 500;
#endif

/// What a process holds, to see that it comes back to where it was.
struct ProcessResources {
  std::size_t descriptors;
  std::size_t threads;
  std::size_t heap_bytes;
};

inline std::size_t CountEntries(const char* folder) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder),
                                                std::filesystem::directory_iterator()));
}

/// Whether a thread of this process sleeps, as it does on a lock that another one has.
inline bool IsAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(')');
  return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
}

inline ProcessResources MeasureResources() {
  return {CountEntries("/proc/self/fd"), CountEntries("/proc/self/task"), mallinfo2().uordblks};
}

}  // namespace talvera::korvane::test
