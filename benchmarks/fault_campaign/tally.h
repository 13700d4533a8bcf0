#pragma once

#include <map>
#include <string>

#include "fault_campaign/far_end.h"
#include "fault_campaign/link.h"
#include "fault_campaign/stamp.h"
#include "korvane_diagnostics.h"

namespace talvera::korvane::bench {

/// Sorts what came back.
class Tally {
 public:
  explicit Tally(bool serial, const Trouble& trouble) : serial_(serial), trouble_(trouble) {}

  /// True if it was the right answer, so that no other one is left for this request.
  bool Take(const Outcome<Values>& answer, const Stamp& asked);

  /// Prints what came how often. False if something came out that the public headers don't
  /// describe.
  bool Report() const;

 private:
  std::string FailureName(const Failure& failure) const;
  std::string Judge(const Values& values, const Stamp& asked);

  const bool serial_;
  const Trouble& trouble_;
  std::map<std::string, long> counts_;
  long unsettled_ = 0;
};

}  // namespace talvera::korvane::bench
