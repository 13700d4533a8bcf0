#include "korvane_vanta.h"

#include "hand/hand_members.h"

namespace talvera::korvane {

KorvaneVanta::~KorvaneVanta() = default;

void KorvaneVanta::Reset(std::uint8_t id, HandType hand) {
  SetMembers(*this, Model::VANTA, id, hand);
}

}  // namespace talvera::korvane
