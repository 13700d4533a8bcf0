#include "korvane_tessel.h"

#include "hand/hand_members.h"
#include "link/diagnostics.h"
#include "solver/actuator_words.h"

namespace talvera::korvane {

KorvaneTessel::~KorvaneTessel() = default;

void KorvaneTessel::Reset(std::uint8_t id, HandType hand) {
  SetMembers(*this, Model::TESSEL, id, hand);
  solver = std::make_unique<ts9::KorvaneTesselSolver>(mirrored);
}

void KorvaneTessel::SetHandGesture(int gesture) {
  const OperationScope operation(*this, __func__);
  if (solver) SetAllJointMotorPosi(ToWords(solver->SetHandGesture(gesture)));
}

}  // namespace talvera::korvane
