#pragma once

#include <string>

#include "fault_campaign/link.h"

// What the program does, as main.cpp tells. Each returns the exit status.

namespace talvera::korvane::bench {

int RunRequests(const std::string& name, const Link& link, long requests);
int RunCycles(const std::string& name, const Link& link, long cycles);
int RunSoak(const std::string& name, const Link& link, double minutes);

}  // namespace talvera::korvane::bench
