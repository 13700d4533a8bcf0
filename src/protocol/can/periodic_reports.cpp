#include "protocol/can/periodic_reports.h"

#include "protocol/can/can_identifier.h"
#include "protocol/can/reply_words.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr std::uint32_t kWholeHandMask = 0xFFFF0000;

/// Logs a line for each bit that is set. A standing fault repeats its lines with every report.
void LogFaults(unsigned motor, std::uint8_t bits) {
  static constexpr const char* kFaults[] = {" stalled!", " overheat!", " overcurrent!",
                                            " motor exception!", " communication exception!"};
  unsigned bit = 0;
  for (const char* const fault : kFaults) {
    if ((bits >> bit++ & 1U) != 0) LogError(Compose("[ERROR]: Joint motor ", motor, fault));
  }
}

}  // namespace

bool PeriodicReports::StoreIfReport(const CanfdFrame& frame) {
  const std::uint32_t id = frame.can_id & kCanIdMask;
  switch (id & kWholeHandMask) {
    case FunctionField(function_code::kTemperature):
      Store(temperature_, frame);
      return true;
    case FunctionField(function_code::kCurrent):
      Store(current_, frame);
      return true;
    case FunctionField(function_code::kError): {
      unsigned motor = 0;
      for (const std::uint16_t word : WordsOf<unsigned short>(frame)) {
        LogFaults(++motor, static_cast<std::uint8_t>(word));
      }
      return true;
    }
    default:
      break;
  }
  if (FunctionOf(id) != function_code::kError) return false;
  LogFaults(IndexOf(id), frame.data[0]);
  return true;
}

void PeriodicReports::Store(Cache& cache, const CanfdFrame& frame) {
  auto values = WordsOf<unsigned short>(frame);
  const MutexLock lock(cache.mutex);
  cache.values.swap(values);
}

std::vector<std::uint16_t> PeriodicReports::Values(std::uint8_t function) const {
  const Cache& cache = function == function_code::kTemperature ? temperature_ : current_;
  const MutexLock lock(cache.mutex);
  return cache.values;
}

}  // namespace talvera::korvane
