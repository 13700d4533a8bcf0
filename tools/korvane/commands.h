#pragma once

#include <memory>

#include "command.h"

// What makes the commands, each in the file of its name.

namespace korvane_tool {

std::unique_ptr<Command> MakeFind(Options options);
std::unique_ptr<Command> MakeInfo(Options options);
std::unique_ptr<Command> MakeWatch(Options options);
std::unique_ptr<Command> MakeServe(Options options);
std::unique_ptr<Command> MakeMove(Options options);
std::unique_ptr<Command> MakeRecord(Options options);
std::unique_ptr<Command> MakeReplay(Options options);
std::unique_ptr<Command> MakeBench(Options options);
std::unique_ptr<Command> MakeDoctor(Options options);
std::unique_ptr<Command> MakeUpdate(Options options);
std::unique_ptr<Command> MakeService(Options options);
std::unique_ptr<Command> MakeSim(Options options);
std::unique_ptr<Command> MakeCompletion(Options options);

}  // namespace korvane_tool
