// Makes one fault of each kind that a sanitizer is to find, to prove that it would.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>

namespace {

int UseAfterFree() {
  auto* const value = new int(std::rand());  // NOLINT(concurrency-mt-unsafe)
  delete value;
  return *value;  // NOLINT(clang-analyzer-cplusplus.NewDelete)
}

int SignedOverflow(int argc) { return std::numeric_limits<int>::max() + argc; }

int DataRace() {
  int value = 0;
  std::thread other([&value] { ++value; });
  ++value;
  other.join();
  return value;
}

}  // namespace

int main(int argc, char** argv) {
  const char* const fault = argc > 1 ? argv[1] : "";
  int result = 0;
  if (std::strcmp(fault, "address") == 0) result = UseAfterFree();
  if (std::strcmp(fault, "undefined") == 0) result = SignedOverflow(argc);
  if (std::strcmp(fault, "thread") == 0) result = DataRace();
  std::printf("no sanitizer objected (%d)\n", result);
  return EXIT_SUCCESS;
}
