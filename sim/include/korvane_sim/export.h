#pragma once

#if defined(__GNUC__)
#define KORVANE_SIM_EXPORT __attribute__((visibility("default")))
#else
#define KORVANE_SIM_EXPORT
#endif
