// Where a closed library isn't installed. This program links no stand-in for either of them; what
// is looked for is looked for once in a process, so every case runs in a child of its own.

#include "can/closed_library.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "can/hcan_device.h"
#include "can/zlg_usbcanfd_device.h"
#include "support/capture.h"

namespace talvera::korvane {
namespace {

using test::CaptureStreams;
using testing::MatchesRegex;

// With the C library's mathematics as a library that is surely there.
constexpr const char* kPresent = "libm.so.6";

/// Says which of its checks failed, in the child's exit code.
[[noreturn]] void ExitWith(std::initializer_list<bool> checks) {
  int failed = 0;
  int number = 0;
  for (const bool passed : checks) {
    ++number;
    if (!passed && failed == 0) failed = number;
  }
  std::_Exit(failed);
}

/// With the folders that the program was told to look in, and the loader's own reason.
std::string NotFound(const std::string& name, const std::string& folders) {
  return "\\[ERROR\\]: " + name +
         " not found: looked in the process itself, in LD_LIBRARY_PATH \\(" + folders +
         "\\) and in the system's library directories; the loader says: " + name +
         ": cannot open shared object file[^\n]*\n";
}

/// A device by its index and one by its serial number.
template <class Device>
[[noreturn]] void UseMissingLibrary(const char* folders) {
  folders != nullptr ? setenv("LD_LIBRARY_PATH", folders, 1) : unsetenv("LD_LIBRARY_PATH");
  Device by_index(1, 0, 0);
  Device by_serial_number("SN", 0, 0);
  std::uint8_t data[1] = {};
  const int sent = by_index.SendFrame(1, data, 1);
  ExitWith({!by_index.IsInit(), !by_serial_number.IsInit(), sent == -1});
}

TEST(MissingLibrary, LeavesItsAdapterClosedAndIsToldOnce) {
  const char folders[] = "/some/folder:/other";
  EXPECT_EXIT(UseMissingLibrary<ZlgUsbcanfdDevice>(folders), testing::ExitedWithCode(0),
              MatchesRegex(NotFound("libusbcanfd.so", folders) +
                           "\\[ERROR\\]: Open device 1 usbcanfd failed!\n"
                           "\\[ERROR\\]: Device with serial number \"SN\" not found!\n"
                           "\\[ZLG CAN ERROR\\] VCI_TransmitFD failed: returned 0 [^\n]*\n"));
  EXPECT_EXIT(UseMissingLibrary<HcanDevice>(nullptr), testing::ExitedWithCode(0),
              MatchesRegex(NotFound("libcanbus.so", "not set") +
                           "\\[HCAN ERROR\\] No device found!\n"
                           "\\[HCAN ERROR\\] Device with serial number \"SN\" not found!\n"
                           "\\[HCAN ERROR\\] Failed to send frame, ID=0x1\n"));
}

double InProcess(double) { return 42.0; }

TEST(PresentLibrary, IsCalledUnlessTheProcessHasTheFunctionItself) {
  ClosedLibrary file(kPresent);
  const LibraryFunction<double(double), -7> loaded(file, nullptr, "fabs");
  EXPECT_EQ(loaded(-3.0), 3.0);
  const LibraryFunction<double(double), -7> own(file, InProcess, "fabs");
  EXPECT_EQ(own(-3.0), 42.0);
}

TEST(PresentLibrary, ThatLacksAFunctionTellsItAndAnswersFailure) {
  ClosedLibrary file(kPresent);
  const auto written = CaptureStreams([&] {
    const LibraryFunction<int(), -7> missing(file, nullptr, "korvane_no_such_function");
    EXPECT_EQ(missing(), -7);
  });
  EXPECT_EQ(written.err, "[ERROR]: libm.so.6 has no function korvane_no_such_function\n");
}

TEST(MissingLibrary, IsNotLookedForAsLongAsTheProcessHasItsFunctions) {
  const auto written = CaptureStreams([&] {
    ClosedLibrary file("libkorvane-no-such-library.so");
    const LibraryFunction<double(double), -7> own(file, InProcess, "f");
    EXPECT_EQ(own(0.0), 42.0);
  });
  EXPECT_EQ(written.err, "");
}

}  // namespace
}  // namespace talvera::korvane
