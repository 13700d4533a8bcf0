#pragma once

#include <array>
#include <atomic>
#include <random>
#include <thread>

#include "fault_campaign/line.h"
#include "fault_campaign/stamp.h"

namespace talvera::korvane::bench {

/// What may be wrong with an answer, by request; written by both sides.
struct Trouble {
  /// The reply was sent more than once, or may come when its request is over.
  std::array<std::atomic<bool>, kNumbers> stray{};
  /// The request that is under way.
  std::atomic<unsigned> number{0};
  /// Whether the present request's reply was held back, in whole or for a while.
  std::atomic<bool> withheld{false};
};

/// Answers on a thread of its own, with faults or without.
class FarEnd {
 public:
  FarEnd(Line& line, Trouble& trouble, bool faults)
      : line_(line), trouble_(trouble), faults_(faults), thread_([this] { Run(); }) {}
  FarEnd(const FarEnd&) = delete;
  FarEnd& operator=(const FarEnd&) = delete;
  ~FarEnd() {
    stop_ = true;
    thread_.join();
  }

 private:
  void Run();
  void Answer(const Question& question);
  void Withhold(unsigned number);

  Line& line_;
  Trouble& trouble_;
  const bool faults_;
  std::mt19937 random_{1};
  unsigned heard_ = 0;
  Bytes late_before_;
  Bytes late_behind_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace talvera::korvane::bench
