#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace talvera::korvane::test {

/// What the process writes to one standard stream while this object lives, from whichever thread
/// and through whichever library: the file descriptor is turned aside, not a stream buffer, so
/// that a receive thread may write at any time, also while the capture begins or ends. What was
/// captured is shown again if the test has failed, since the failures are told on the same stream.
class StreamCapture {
 public:
  explicit StreamCapture(std::FILE* stream)
      : stream_(stream),
        file_(Checked(memfd_create("capture", MFD_CLOEXEC))),
        original_(Checked(fcntl(fileno(stream), F_DUPFD_CLOEXEC, 0))) {
    std::fflush(stream_);
    Checked(dup2(file_, fileno(stream_)));
  }
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

  ~StreamCapture() {
    const std::string text = Text();
    dup2(original_, fileno(stream_));
    close(original_);
    close(file_);
    if (testing::Test::HasFailure()) std::fwrite(text.data(), 1, text.size(), stream_);
  }

  /// Everything written so far.
  std::string Text() const {
    std::fflush(stream_);
    struct stat status {};
    fstat(file_, &status);
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const ssize_t size = pread(file_, text.data(), text.size(), 0);
    text.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return text;
  }

 private:
  static int Checked(int result) {
    if (result < 0) throw std::system_error(errno, std::generic_category(), "capture");
    return result;
  }

  std::FILE* stream_;
  int file_;
  int original_;
};

struct Streams {
  std::string out;
  std::string err;
};

/// What `action` writes to the two standard streams.
template <class Action>
Streams CaptureStreams(Action&& action) {
  const StreamCapture out(stdout);
  const StreamCapture err(stderr);
  action();
  return {out.Text(), err.Text()};
}

}  // namespace talvera::korvane::test
