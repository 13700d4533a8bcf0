#include "standard_streams.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>

namespace korvane_tool {
namespace {

std::atomic<int> g_stdout_error{0};

/// Only the first says why: later ones fail since the stream has failed.
void Remember(bool written) {
  int none = 0;
  if (!written) g_stdout_error.compare_exchange_strong(none, errno);
}

}  // namespace

void OutliveReaders() { std::signal(SIGPIPE, SIG_IGN); }

void WriteToStdout(std::string_view text) {
  Remember(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void FlushStdout() { Remember(std::fflush(stdout) == 0); }

int StdoutError() {
  const bool failed_elsewhere = g_stdout_error == 0 && std::ferror(stdout) != 0;
  return failed_elsewhere ? EIO : g_stdout_error.load();
}

void WriteToStderr(std::string_view text) {
  [[maybe_unused]] const auto written = std::fwrite(text.data(), 1, text.size(), stderr);
}

}  // namespace korvane_tool
