// Addresses of hands: a text that is one means the same after a way through ToString.

#include "korvane_open.h"
#include "support.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const auto address = HandAddress::Parse(input.Rest());
  if (!address) {
    Require(!address.failure().text.empty());
    return;
  }
  const auto again = HandAddress::Parse(address->ToString());
  Require(again && *again == *address && again->ToString() == address->ToString());
  Require(again->side == address->side && again->model == address->model &&
          again->id == address->id);
}
