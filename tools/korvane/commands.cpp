#include "commands.h"

namespace korvane_tool {

const std::vector<CommandRow>& AllCommands() {
  static const std::vector<CommandRow> rows{
      {"find", "List the hands that are there, on every link", &MakeFind},
      {"info", "Tell what a hand is and how it is", &MakeInfo},
      {"doctor", "Look for what keeps a hand from answering, and say what mends it", &MakeDoctor},
      {"watch", "Show a hand live: joints, currents, temperatures, errors, touch", &MakeWatch},
      {"serve", "Show hands on a page in the browser", &MakeServe},
      {"move", "Move motors, joints or the whole hand, within its limits", &MakeMove},
      {"update", "Replace the firmware of a hand", &MakeUpdate},
      {"service", "Set a hand up: settings, serial number, id", &MakeService},
      {"record", "Record what a hand tells, or the frames of its link", &MakeRecord},
      {"replay", "Play a recording on a hand", &MakeReplay},
      {"bench", "Measure round trips to a hand", &MakeBench},
      {"sim", "Start simulated hands, by korvane-sim", &MakeSim, false},
      {"completion", "Print the completion of a shell", &MakeCompletion, false},
  };
  return rows;
}

}  // namespace korvane_tool
