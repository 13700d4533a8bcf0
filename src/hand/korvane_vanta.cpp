#include "korvane_vanta.h"

#include "protocol/can/korvane_vanta_can_impl.h"

namespace talvera::korvane {

KorvaneVanta::~KorvaneVanta() = default;

void KorvaneVanta::Reset(std::uint8_t id, HandType hand) {
  SetMembers(*this, VantaRow::kModel.model_code, id, hand);
}

}  // namespace talvera::korvane
