#pragma once

#include "support/fake_library.h"

namespace talvera::korvane::test {

/// What stands behind the VCI_* functions of a program that links fake_usbcanfd.cpp. Calls begin
/// with device type and index. A device that isn't plugged, or is asked for by another type than
/// 33, doesn't open.
FakeLibrary& FakeUsbCanFd();

}  // namespace talvera::korvane::test
