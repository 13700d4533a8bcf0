#include "can/can_link.h"
#include "korvane.h"

namespace talvera::korvane {

bool EnableConcurrentCalls(Korvane& hand) {
  auto* const owner = dynamic_cast<CanLinkOwner*>(&hand);
  if (owner == nullptr || !owner->Link().transport) return false;
  owner->Link().transport->SetSerializedRequestQueue(false);
  return true;
}

}  // namespace talvera::korvane
