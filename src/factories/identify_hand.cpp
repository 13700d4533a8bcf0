#include "can/can_link.h"
#include "factories/bus_probe.h"
#include "factories/known_models.h"
#include "hand/hand_members.h"
#include "private_korvane.h"
#include "protocol/can/can_identifier.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

constexpr const char* kOperation = "IdentifyHand";
constexpr int kRoundsOfFamilies = 2;

bool IsServiceHand(const Korvane& hand) {
  return dynamic_cast<const PrivateKorvane*>(&hand) != nullptr;
}

/// The transport of a hand with the public protocol on CAN. The hand is const to its caller, who
/// changes nothing by asking; the link below it is not.
CanLink* PublicCanLink(const Korvane& hand) {
  if (IsServiceHand(hand)) return nullptr;
  auto* const owner = dynamic_cast<CanLinkOwner*>(const_cast<Korvane*>(&hand));
  return owner != nullptr ? &owner->Link() : nullptr;
}

Outcome<Model> Judge(const VendorInfo& vendor, std::uint32_t family, int id) {
  if (const auto model = ModelOf(vendor, family)) return *model;
  return Failure{
      FailureKind::BAD_REPLY, kOperation,
      Compose("what answers with id ", id, " is none of the models: ", Describe(vendor))};
}

/// Under the hand's own family first. Over the queue and with the time-out of the hand.
Outcome<Model> IdentifyOnCan(const Korvane& hand, CanLink& link) {
  if (!link.IsInit()) return Failure{FailureKind::NO_LINK, kOperation, "the hand has no link"};
  const auto id = static_cast<std::uint8_t>(DeviceIdOf(hand) & kDeviceIdMask);
  auto families = kFamilies;
  const bool is_quill = hand.model_code == CodeOf(Model::QUILL);
  if (is_quill) std::swap(families[0], families[1]);
  Failure failure;
  for (int i = 0; i < kRoundsOfFamilies; ++i) {
    for (const std::uint32_t family : families) {
      try {
        const auto vendor = VendorRecordIn(link.Request(VendorQuery(family, id), 0));
        if (vendor) return Judge(*vendor, family, id);
        failure = {FailureKind::BAD_REPLY, kOperation, "the vendor record is empty"};
      } catch (const std::exception& error) {
        failure = FailureOf(error);
        failure.operation = kOperation;
      }
    }
  }
  return failure;
}

Failure WithoutVendor(const Korvane& hand) {
  Failure failure = LastFailure(hand);
  if (failure.kind == FailureKind::NONE) {
    failure = {FailureKind::NO_REPLY, "", "no hand answers"};  // of a class that records none
  }
  failure.operation = kOperation;
  return failure;
}

Outcome<Model> Identify(const Korvane& hand) {
  if (CanLink* const link = PublicCanLink(hand)) return IdentifyOnCan(hand, *link);
  VendorInfo vendor = hand.GetVendorInfo();
  if (vendor.product_model.empty()) return WithoutVendor(hand);
  // Over the service interface of CAN every model but two calls itself a KorvaneBrisa.
  const bool on_can = dynamic_cast<const CanLinkOwner*>(&hand) != nullptr;
  if (on_can) vendor.product_model.clear();
  return Judge(vendor, Known(Model::BRISA).family, DeviceIdOf(hand));
}

}  // namespace

Outcome<Model> IdentifyHand(const Korvane& hand) {
  const OperationScope operation(hand, kOperation);
  auto model = Identify(hand);
  if (!model) {
    const Failure& failure = model.failure();
    RecordFailure(hand, failure.kind, failure.text, failure.system_error);
  }
  return model;
}

}  // namespace talvera::korvane
