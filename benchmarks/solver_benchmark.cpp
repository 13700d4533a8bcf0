// What a conversion of the solvers takes, and how often it allocates. The baseline is the making of
// a vector as large as the result, which no conversion can do without.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <vector>

#include "korvane_brisa_solver.h"
#include "korvane_tessel_solver.h"

namespace {
thread_local std::size_t allocations = 0;
}

[[gnu::noinline]] void* operator new(std::size_t size) {
  ++allocations;
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace talvera::korvane {
namespace {

template <class Action>
std::size_t AllocationsOf(const Action& action) {
  const std::size_t before = allocations;
  action();
  return allocations - before;
}

template <class Convert>
void Measure(benchmark::State& state, const Convert& convert) {
  for ([[maybe_unused]] auto _ : state) benchmark::DoNotOptimize(convert());
  state.counters["allocations"] = static_cast<double>(AllocationsOf(convert));
}

void VectorOfTwelveInts(benchmark::State& state) {
  Measure(state, [] { return std::vector<int>(12, 1); });
}
BENCHMARK(VectorOfTwelveInts);

struct Brisa {
  br7::KorvaneBrisaSolver solver{false};
  std::vector<double> joints{0.5, -0.5, 0.4, -0.1, 0.7, 0.7, 0.1, 0.7, 0.1, 0.7};
  std::vector<int> inputs = solver.ActiveJointPos2ActuatorInput(joints);
};

void BrisaJointsToInputs(benchmark::State& state) {
  const Brisa hand;
  Measure(state, [&] { return hand.solver.ActiveJointPos2ActuatorInput(hand.joints); });
}
void BrisaInputsToJoints(benchmark::State& state) {
  const Brisa hand;
  Measure(state, [&] { return hand.solver.ActuatorInput2ActiveJointPos(hand.inputs); });
}
void BrisaAllJoints(benchmark::State& state) {
  const Brisa hand;
  Measure(state, [&] { return hand.solver.GetAllJointPos(hand.joints); });
}
void BrisaGesture(benchmark::State& state) {
  const Brisa hand;
  Measure(state, [&] { return hand.solver.SetHandGesture(3); });
}
BENCHMARK(BrisaJointsToInputs);
BENCHMARK(BrisaInputsToJoints);
BENCHMARK(BrisaAllJoints);
BENCHMARK(BrisaGesture);

struct Tessel {
  ts9::KorvaneTesselSolver solver{false};
  std::vector<double> joints{0.4, -0.5, -0.3, -0.6, 0.1, 0.5, 0.7, 0.1, 0.6, 0.8, 0.7, 0.7};
  std::vector<int> inputs = solver.ConvertJoint2Actuator(joints);
};

void TesselJointsToInputs(benchmark::State& state) {
  const Tessel hand;
  Measure(state, [&] { return hand.solver.ConvertJoint2Actuator(hand.joints); });
}
void TesselInputsToJoints(benchmark::State& state) {
  const Tessel hand;
  Measure(state, [&] { return hand.solver.ConvertActuator2Joint(hand.inputs); });
}
void TesselAllJoints(benchmark::State& state) {
  const Tessel hand;
  Measure(state, [&] { return hand.solver.GetAllJointPos(hand.joints); });
}
void TesselGesture(benchmark::State& state) {
  const Tessel hand;
  Measure(state, [&] { return hand.solver.SetHandGesture(1); });
}
BENCHMARK(TesselJointsToInputs);
BENCHMARK(TesselInputsToJoints);
BENCHMARK(TesselAllJoints);
BENCHMARK(TesselGesture);

}  // namespace
}  // namespace talvera::korvane
