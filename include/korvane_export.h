#pragma once

/// Marks what the shared library exports; everything else has hidden visibility.
#if defined(__GNUC__)
#define KORVANE_EXPORT __attribute__((visibility("default")))
#else
#define KORVANE_EXPORT
#endif
