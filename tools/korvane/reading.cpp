#include "reading.h"

#include <utility>

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

}  // namespace

Reading::Reading(const OpenedHand& hand) : hand_(hand) {
  for (const Quantity& quantity : AllQuantities()) {
    if (quantity.live == Live::NEVER) continue;
    auto values = Read(hand, quantity);
    if (values || values.failure().kind != FailureKind::NOT_SUPPORTED) {
      rows_.push_back({&quantity, std::move(values).value_or(std::vector<double>())});
    }
  }
}

Outcome<void> Reading::Refresh(Row& row) {
  const auto start = Clock::now();
  auto values = Read(hand_, *row.quantity);
  if (std::string(row.quantity->key) == "positions") round_trip_ = Clock::now() - start;
  if (!values) return values.failure();
  row.values = *std::move(values);
  return {};
}

Outcome<void> Reading::Refresh() {
  std::vector<Row*> slow;
  for (Row& row : rows_) {
    if (row.quantity->live == Live::BY_TURNS) {
      slow.push_back(&row);
    } else if (auto outcome = Refresh(row); !outcome) {
      return outcome;
    }
  }
  const std::size_t turn = turn_++;
  if (HasTouch(hand_) && turn % 2 == 0) {
    if (auto touch = ReadTouch(hand_)) touch_ = *std::move(touch);
    return {};
  }
  return slow.empty() ? Outcome<void>() : Refresh(*slow[turn / 2 % slow.size()]);
}

const std::vector<double>* Reading::ValuesOf(const std::string& key) const {
  for (const Row& row : rows_) {
    if (key == row.quantity->key && !row.values.empty()) return &row.values;
  }
  return nullptr;
}

}  // namespace korvane_tool
