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
#include <string>

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kLongest = std::chrono::seconds(10);
constexpr std::size_t kMost = 1'000'000;

/// 0 if there is no such program.
pid_t Start(const std::string& program, const std::vector<char*>& arguments, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  pid_t child = 0;
  const int error =
      posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? child : 0;
}

/// False if it was too much, or took too long.
bool ReadAll(int input, std::string& text) {
  std::array<char, 4096> piece;
  const auto end = Clock::now() + kLongest;
  while (text.size() <= kMost) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
    pollfd watched{input, POLLIN, 0};
    if (left.count() <= 0 || poll(&watched, 1, static_cast<int>(left.count())) == 0) return false;
    const ssize_t size = read(input, piece.data(), piece.size());
    if (size == 0) return true;
    if (size > 0) text.append(piece.data(), static_cast<std::size_t>(size));
    if (size < 0 && errno != EINTR) return false;
  }
  return false;
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
  const bool whole = child != 0 && ReadAll(ends[0], result.output);
  close(ends[0]);
  if (child == 0) return {};
  if (!whole) kill(child, SIGKILL);
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.succeeded = whole && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return result;
}

}  // namespace korvane_tool
