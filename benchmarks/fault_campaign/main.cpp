// Asks a hand that answers late, twice, out of order, for another hand, or not at all, and sorts
// what comes back; or takes its link away and brings it back. Run by scripts/campaign.
//
//     fault_campaign requests LINK N
//     fault_campaign cycles LINK N
//     fault_campaign soak LINK MINUTES
//
// LINK is socketcan, zlg, hcan, serial, or, through scripts/kernel-guest, kernel: SocketCAN on a
// bus of a real kernel, in place of a pair of sockets. A soak asks for that long, opens its hand
// anew every ten seconds, and looks whether the process grows. Each reply says which request it
// answers, so that a value that belongs to another one shows. The exit status is 1 if something
// came out that the public headers don't describe.

#include <signal.h>

#include <cstdio>
#include <string>
#include <vector>

#include "fault_campaign/link.h"
#include "fault_campaign/runs.h"
#include "korvane_link.h"
#include "korvane_log.h"

namespace talvera::korvane::bench {
namespace {

int Run(const std::vector<std::string>& arguments) {
  const auto link = arguments.size() == 3 ? Links().find(arguments[1]) : Links().end();
  if (link == Links().end()) {
    std::fprintf(stderr,
                 "usage: fault_campaign requests|cycles LINK N\n"
                 "       fault_campaign soak LINK MINUTES\n"
                 "LINK: socketcan, kernel, zlg, hcan or serial\n");
    return 2;
  }
  // A pair of sockets, unlike a CAN socket, ends the program when its far end is gone.
  signal(SIGPIPE, SIG_IGN);
  SetLogSink(SilentLog());
  SetDefaultReceiving(Receiving::BY_EVENTS);
  const auto& [name, way] = *link;
  if (arguments[0] == "soak") return RunSoak(name, way, std::stod(arguments[2]));
  const long count = std::stol(arguments[2]);
  return arguments[0] == "cycles" ? RunCycles(name, way, count) : RunRequests(name, way, count);
}

}  // namespace
}  // namespace talvera::korvane::bench

int main(int argc, char** argv) {
  return talvera::korvane::bench::Run(std::vector<std::string>(argv + 1, argv + argc));
}
