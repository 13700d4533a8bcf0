// A user's own test: a simulated hand inside the program, with no other process.

#include <korvane_brisa.h>
#include <korvane_sim/in_process_adapters.h>

#include <cstdio>

int main() {
  using namespace talvera::korvane;
  sim::InProcessAdapters adapters;
  adapters.Bus(0, 0).Add({sim::kBrisa, 1});
  const auto hand = KorvaneBrisa::createHandByZlgcan(HandType::RIGHT, 1);
  hand->SetFrameRecvTimeout(1000);
  const bool moved = hand->SetJointMotorPosi(2, 1500) == 1500;
  std::printf("consumer_with_simulator %s\n", moved ? "ok" : "FAILED");
  return moved ? 0 : 1;
}
