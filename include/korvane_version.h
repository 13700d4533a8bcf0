#pragma once

#include "korvane_export.h"

// The version of these headers. The build takes the project's version from here.
#define KORVANE_VERSION_MAJOR 1
#define KORVANE_VERSION_MINOR 0
#define KORVANE_VERSION_PATCH 0

#define KORVANE_VERSION_TEXT_OF(major, minor, patch) #major "." #minor "." #patch
#define KORVANE_VERSION_TEXT(major, minor, patch) KORVANE_VERSION_TEXT_OF(major, minor, patch)

/// The version of these headers as a text, such as "1.0.0".
#define KORVANE_VERSION \
  KORVANE_VERSION_TEXT(KORVANE_VERSION_MAJOR, KORVANE_VERSION_MINOR, KORVANE_VERSION_PATCH)

namespace talvera::korvane {

/// The version of the library that the program runs with, such as "1.0.0". It differs from
/// KORVANE_VERSION if the program was built with the headers of another version.
KORVANE_EXPORT const char* korvane_version();

}  // namespace talvera::korvane
