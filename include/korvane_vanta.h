#pragma once

#include <cstdint>

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The hand with twenty motors. It has no tactile sensors, and its kinematics isn't known:
/// SetAllActiveJointAngles returns nothing and GetAllActiveJointAngles and GetAllJointAngles twenty
/// zeros, each after one line; GetAllJointPos returns its argument; SetHandGesture does nothing.
///
/// What is read of the whole hand may hold more than twenty values: the bus pads forty bytes to
/// forty-eight. The motors' values come first.
///
/// A mixed command in mode 4 or 5 takes at most 12 targets, as many as one frame holds; one with
/// more is refused.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
class KORVANE_EXPORT KorvaneVanta : public KorvaneBase,
                                    public CanFactories<KorvaneVanta>,
                                    public CanBroadcasts<KorvaneVanta> {
 public:
  /// Makes the object one for that id and that side; nothing is sent. The factories do so. Not
  /// while another call runs.
  void Reset(std::uint8_t device_id, HandType hand);

  ~KorvaneVanta() override;
};

}  // namespace talvera::korvane
