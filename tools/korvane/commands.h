#pragma once

#include <memory>

#include "command.h"

// What makes the commands, each in the file of its name.

namespace korvane_tool {

std::unique_ptr<Command> MakeFind(CLI::App& options);
std::unique_ptr<Command> MakeInfo(CLI::App& options);
std::unique_ptr<Command> MakeWatch(CLI::App& options);
std::unique_ptr<Command> MakeMove(CLI::App& options);
std::unique_ptr<Command> MakeRecord(CLI::App& options);
std::unique_ptr<Command> MakeReplay(CLI::App& options);
std::unique_ptr<Command> MakeBench(CLI::App& options);
std::unique_ptr<Command> MakeDoctor(CLI::App& options);
std::unique_ptr<Command> MakeUpdate(CLI::App& options);
std::unique_ptr<Command> MakeService(CLI::App& options);
std::unique_ptr<Command> MakeSim(CLI::App& options);
std::unique_ptr<Command> MakeCompletion(CLI::App& options);

}  // namespace korvane_tool
