#include <fmt/format.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "common/standard_streams.h"
#include "tool.h"

namespace korvane_tool {
namespace {

/// The program beside this one; otherwise whichever PATH has.
std::string Simulator() {
  std::array<char, PATH_MAX> self{};
  const auto length = readlink("/proc/self/exe", self.data(), self.size() - 1);
  std::string path(self.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
  path.erase(path.rfind('/') + 1);
  path += "korvane-sim";
  return access(path.c_str(), X_OK) == 0 ? path : "korvane-sim";
}

class Sim : public Command {
 public:
  explicit Sim(Options options) : options_(options) {
    options.LeaveAll();
    options.Footer("All arguments are those of korvane-sim; `korvane sim --help` shows its help.");
  }

  int Run(Tool&) override {
    std::vector<std::string> arguments = options_.Left();
    const std::string program = Simulator();
    arguments.insert(arguments.begin(), program);
    std::vector<char*> pointers;
    pointers.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    FlushStdout();
    std::signal(SIGPIPE, SIG_DFL);  // which it would inherit as PrepareStandardStreams has set it
    execvp(program.c_str(), pointers.data());
    throw ToolError(kFailed, fmt::format("{} can't be started: {}; install korvane-tools, or build "
                                         "with -DKORVANE_BUILD_SIM=ON",
                                         program, std::strerror(errno)));
  }

 private:
  Options options_;
};

}  // namespace

std::unique_ptr<Command> MakeSim(Options options) { return std::make_unique<Sim>(options); }

}  // namespace korvane_tool
