#include "private_korvane.h"

#include "private_korvane_brisa.h"
#include "private_korvane_lumen.h"

namespace talvera::korvane {

PrivateKorvane::~PrivateKorvane() = default;
PrivateKorvaneBrisa::~PrivateKorvaneBrisa() = default;
PrivateKorvaneLumen::~PrivateKorvaneLumen() = default;

}  // namespace talvera::korvane
