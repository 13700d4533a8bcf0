#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fault_campaign/line.h"
#include "korvane_brisa.h"

namespace talvera::korvane::bench {

/// A way to a hand, by which both ends are made.
struct Link {
  std::function<std::unique_ptr<Line>()> plug;
  std::function<std::unique_ptr<KorvaneBrisa>(Line&)> open;
  std::vector<unsigned> kinds;
};

/// By the name that the program is told.
const std::map<std::string, Link>& Links();

using Values = std::vector<short>;

/// `kind` is one of Kind. An index of 0 stands for all motors.
Values Ask(KorvaneBrisa& hand, unsigned kind, unsigned index);

}  // namespace talvera::korvane::bench
