#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

/// korvane-sim as a child process.
class SimulatorProcess {
 public:
  explicit SimulatorProcess(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), KORVANE_SIM_PROGRAM);
    std::array<int, 2> ends{};
    if (pipe(ends.data()) != 0) return;
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      dup2(ends[1], STDERR_FILENO);
      execv(argv[0], argv.data());
      _exit(127);
    }
    close(ends[1]);
    output_ = ends[0];
  }

  SimulatorProcess(const SimulatorProcess&) = delete;
  SimulatorProcess& operator=(const SimulatorProcess&) = delete;

  ~SimulatorProcess() {
    if (pid_ > 0) End(SIGKILL);
    if (output_ >= 0) close(output_);
  }

  /// The next line that it writes, to either stream; empty when it has ended.
  std::string ReadLine() const {
    std::string line;
    char letter = 0;
    while (read(output_, &letter, 1) == 1 && letter != '\n') line += letter;
    return line;
  }

  /// False, with what it said instead, if it ended before it served.
  bool AwaitReady() const {
    for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) {
      if (line.rfind("korvane-sim: ready", 0) == 0) return true;
      said_ += line + "\n";
    }
    return false;
  }
  const std::string& Said() const { return said_; }

  /// The exit status; -1 for an end by a signal.
  int End(int signal) {
    kill(pid_, signal);
    return Wait();
  }

  int Wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t pid_ = -1;
  int output_ = -1;
  mutable std::string said_;
};

}  // namespace talvera::korvane::test
