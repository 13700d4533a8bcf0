#pragma once

#include "support/fake_library.h"

namespace talvera::korvane::test {

/// What stands behind the CAN_* and CANFD_* functions of a program that links fake_canbus.cpp.
/// Calls begin with the device index. A scan counts up to the last plugged device; one that isn't
/// plugged doesn't open.
FakeLibrary& FakeCanBus();

}  // namespace talvera::korvane::test
