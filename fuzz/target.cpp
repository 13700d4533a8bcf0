// How libFuzzer calls each target.

#include "korvane_link.h"
#include "korvane_log.h"
#include "support.h"

using namespace talvera::korvane;

/// What the library writes about bad input would drown the reports. A receive thread that waits for
/// events ends at once when it is told to.
extern "C" int LLVMFuzzerInitialize(int* /*count*/, char*** /*arguments*/) {
  SetLogSink([](LogLevel, std::string_view) {});
  SetDefaultReceiving(Receiving::BY_EVENTS);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  fuzz::Fuzz(input);
  return 0;
}
