#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <optional>
#include <string>
#include <thread>

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLongest = std::chrono::seconds(10);
constexpr auto kBetweenLooks = std::chrono::milliseconds(1);
constexpr std::size_t kMost = 1'000'000;

/// It has no input, and a broken pipe ends it, which doesn't end the tool.
bool Prepare(posix_spawn_file_actions_t& files, posix_spawnattr_t& attributes, int output) {
  sigset_t pipe;
  sigemptyset(&pipe);
  sigaddset(&pipe, SIGPIPE);
  return posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0) == 0 &&
         posix_spawn_file_actions_addopen(&files, STDERR_FILENO, "/dev/null", O_WRONLY, 0) == 0 &&
         posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO) == 0 &&
         posix_spawnattr_setsigdefault(&attributes, &pipe) == 0 &&
         posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF) == 0;
}

/// 0 if there is no such program.
pid_t Start(const std::string& program, const std::vector<char*>& arguments, int output) {
  posix_spawn_file_actions_t files;
  posix_spawnattr_t attributes;
  if (posix_spawn_file_actions_init(&files) != 0) return 0;
  if (posix_spawnattr_init(&attributes) != 0) return 0;
  pid_t child = 0;
  const bool started =
      Prepare(files, attributes, output) &&
      posix_spawnp(&child, program.c_str(), &files, &attributes, arguments.data(), environ) == 0;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&files);
  return started ? child : 0;
}

/// False if it was too much, or took too long.
bool ReadAll(int input, Clock::time_point end, std::string& text) {
  std::array<char, 4096> piece;
  while (text.size() <= kMost) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0) return false;
    pollfd watched{input, POLLIN, 0};
    const int ready = poll(&watched, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return false;
    const ssize_t size = read(input, piece.data(), piece.size());
    if (size == 0) return true;
    if (size > 0) text.append(piece.data(), static_cast<std::size_t>(size));
    if (size < 0 && errno != EINTR) return false;
  }
  return false;
}

/// Whether it ends by then. One that has closed its output may go on.
bool EndsBy(Clock::time_point end, pid_t child) {
  siginfo_t info{};
  while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0) {
    if (info.si_pid == child) return true;
    if (Clock::now() >= end) return false;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return false;
}

/// Whether all that it wrote is there and it succeeded. Ends it if it takes too long.
bool ReadToTheEnd(pid_t child, int input, std::string& text) {
  const auto end = Clock::now() + kLongest;
  const bool whole = ReadAll(input, end, text) && EndsBy(end, child);
  if (!whole) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return whole && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

ChildResult RunChild(std::vector<std::string> arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) return {};
  pid_t child = 0;
  for (const char* const folder : {"", "/usr/sbin/", "/sbin/"}) {
    if (child == 0) child = Start(folder + arguments.front(), pointers, ends[1]);
  }
  close(ends[1]);
  ChildResult result;
  if (child != 0) result.succeeded = ReadToTheEnd(child, ends[0], result.output);
  close(ends[0]);
  return result;
}

}  // namespace korvane_tool
