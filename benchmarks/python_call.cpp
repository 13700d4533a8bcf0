// The C++ half of python_call.py: how long calls of a Tessel take, as one line "name seconds" each.
// usage: python_call ADDRESS BATCHES

#include <korvane_link.h>
#include <korvane_log.h>
#include <korvane_open.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace kv = talvera::korvane;

namespace {

constexpr int kBatch = 100;

/// The least mean of a batch: what other programs take of the processor isn't meant.
template <class F>
void Measure(const char* name, int batches, kv::KorvaneBase& hand, F operation) {
  std::chrono::duration<double> least = std::chrono::hours(1);
  for (int batch = 0; batch < batches; ++batch) {
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < kBatch; ++i) {
      if (!Checked(hand, operation)) std::exit(1);
    }
    least =
        std::min<std::chrono::duration<double>>(least, std::chrono::steady_clock::now() - begin);
  }
  std::printf("%s %.9f\n", name, least.count() / kBatch);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  kv::SetLogSink(kv::SilentLog());
  kv::SetDefaultReceiving(kv::Receiving::BY_EVENTS);
  auto hand = kv::OpenHand(argv[1]);
  if (!hand) return 1;
  (*hand)->SetFrameRecvTimeout(1000);
  const std::vector<unsigned short> periods(12, 5);
  (*hand)->SetAllTemperReportPeriod(periods);
  while ((*hand)->GetAllTemperatureReport().empty()) {
  }
  (*hand)->SetAllTemperReportPeriod(std::vector<unsigned short>(12, 0));
  const int batches = std::atoi(argv[2]);
  Measure("temperatures", batches * 20, **hand,
          [](auto& h) { return h.GetAllTemperatureReport(); });
  Measure("positions", batches, **hand, [](auto& h) { return h.GetAllJointMotorPosi(); });
  Measure("set_positions", batches, **hand,
          [](auto& h) { return h.SetAllJointMotorPosi(std::vector<short>(12, 1000)); });
}
