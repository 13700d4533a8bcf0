#include "korvane_version.h"

namespace talvera::korvane {

const char* korvane_version() { return KORVANE_VERSION; }

}  // namespace talvera::korvane
