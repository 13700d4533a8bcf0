#pragma once

#include "korvane.h"
#include "korvane_can_factories.h"
#include "korvane_export.h"

namespace talvera::korvane {

/// The small hand with four motors. It has no tactile sensors and no solver: the operations on
/// joint angles and gestures send nothing, write one line and return an empty result.
///
/// When several threads share it and requests wait, commands and position reads overtake reports.
///
/// Made by one of the CanFactories. For blocking, failures and threads see Korvane.
class KORVANE_EXPORT KorvaneLumen : public KorvaneBase,
                                    public CanFactories<KorvaneLumen>,
                                    public CanBroadcasts<KorvaneLumen> {
 public:
  void SetHandGesture(int gesture) override;

  ~KorvaneLumen() override;
};

}  // namespace talvera::korvane
