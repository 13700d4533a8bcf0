#include "standard_streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "exit_status.h"

namespace korvane_common {
namespace {

std::atomic<int> g_stdout_error{0};

/// Only the first says why: later ones fail since the stream has failed.
void Remember(bool written) {
  int none = 0;
  if (!written) g_stdout_error.compare_exchange_strong(none, errno);
}

/// The errno of the first write to the standard output that failed; 0 if none has.
int StdoutError() {
  const bool failed_elsewhere = g_stdout_error == 0 && std::ferror(stdout) != 0;
  return failed_elsewhere ? EIO : g_stdout_error.load();
}

}  // namespace

void PrepareStandardStreams() {
  std::signal(SIGPIPE, SIG_IGN);
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    // The least number that is free is this one. Only for reading, so that writing fails as before.
    if (fcntl(stream, F_GETFD) < 0) open("/dev/null", O_RDONLY);
  }
}

void WriteToStdout(std::string_view text) {
  Remember(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void FlushStdout() { Remember(std::fflush(stdout) == 0); }

void WriteToStderr(std::string_view text) {
  [[maybe_unused]] const auto written = std::fwrite(text.data(), 1, text.size(), stderr);
}

int WriteTheRest(std::string_view program, int status) {
  FlushStdout();
  const int error = StdoutError();
  if (error == 0 || status != kDone) return status;
  WriteToStderr(std::string(program) + ": the output can't be written: " + std::strerror(error) +
                "\n");
  return kFailed;
}

}  // namespace korvane_common
