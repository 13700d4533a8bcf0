#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <vector>

#include "util/log.h"

/// What the solvers of all hands share.
namespace talvera::korvane::solver {

/// c[0] + c[1] x + c[2] x^2 + ..., summed from 0.0 in ascending order; 0.0 without coefficients.
/// The order of the operations is fixed: a last digit can decide where a truncation ends.
inline double Polynomial(double x, const std::vector<double>& coefficients) {
  double sum = 0.0;
  double power = 1.0;
  for (const double coefficient : coefficients) {
    sum += coefficient * power;
    power *= x;
  }
  return sum;
}

/// `value` held between `low` and `high`, both included. A NaN comes out as `low`, because the
/// comparison with it fails: keep the order of the arguments.
template <class Number>
Number Confine(Number low, Number high, Number value) {
  return std::min(std::max(low, value), high);
}

/// minuend - subtrahend, without overflow for any two ints; a double holds it exactly.
inline double Difference(int minuend, int subtrahend) {
  return static_cast<double>(std::int64_t{minuend} - std::int64_t{subtrahend});
}

/// One column of a table of rows, as the public tables of the solvers hold it.
template <class Rows, class Row, class Number>
std::vector<Number> Column(const Rows& rows, Number Row::*column) {
  std::vector<Number> numbers;
  numbers.reserve(std::size(rows));
  for (const Row& row : rows) numbers.push_back(row.*column);
  return numbers;
}

/// True if `found` is `expected`. Otherwise writes the line about it that all operations share.
inline bool HasSize(const char* operation, std::size_t found, std::size_t expected) {
  if (found == expected) return true;
  LogError(Compose("[ERROR]: ", operation, ": Invalid input size. Got ", found, ", expected ",
                   expected));
  return false;
}

}  // namespace talvera::korvane::solver
