// Lists every hand on every link of this machine, and what could not be asked.
//
//   find_hands
//
// Ends with status 0 if there is one.

#include "example.h"

int main() {
  namespace kv = talvera::korvane;
  kv::SetLogSink(kv::SilentLog());
  const kv::FindResult found = kv::FindHands();
  for (const kv::FoundHand& hand : found.hands) {
    std::printf("%s  %s %s, firmware %s\n", hand.address.ToString().c_str(),
                kv::PlainText(hand.vendor.product_model).c_str(),
                kv::PlainText(hand.vendor.serial_number).c_str(),
                hand.vendor.software_version.ToString().c_str());
  }
  for (const kv::Failure& failure : found.not_asked) examples::Explain(failure);
  if (found.hands.empty()) std::fprintf(stderr, "No hand answered.\n");
  return found.hands.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
