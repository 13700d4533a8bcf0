#pragma once

#include <memory>
#include <random>
#include <string>

#include "fault_campaign/far_end.h"
#include "fault_campaign/link.h"
#include "fault_campaign/tally.h"

namespace talvera::korvane::bench {

/// Asks one thing after another, and sorts what comes back.
class Asker {
 public:
  Asker(const std::string& name, const Link& link)
      : link_(link),
        line_(link.plug()),
        far_end_(*line_, trouble_, true),
        tally_(name == "serial", trouble_) {}

  void Open() {
    hand_ = link_.open(*line_);
    hand_->SetFrameRecvTimeout(kTimeoutMs);
  }
  void Close() { hand_.reset(); }

  void AskOne();

  long Count() const { return count_; }

  /// As Tally::Report.
  bool Report() const { return tally_.Report(); }

 private:
  const Link& link_;
  Trouble trouble_;
  std::unique_ptr<Line> line_;
  FarEnd far_end_;
  std::unique_ptr<KorvaneBrisa> hand_;
  Tally tally_;
  std::mt19937 random_{2};
  long count_ = 0;
};

}  // namespace talvera::korvane::bench
