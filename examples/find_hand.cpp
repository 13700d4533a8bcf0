// Finds the hand on a bus without knowing its id or model, and can give it another id.
//
//   find_hand --hand can0
//   find_hand --link socketcan --interface can0
//   find_hand --hand zlg:0.1:brisa:1 --set-id 5
//
// If several hands answer it lists them and ends with status 1; a model or an id says which one is
// meant.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include "hand_options.h"

namespace {

using examples::AnyHand;
using examples::Failure;
using examples::HandAddress;
using examples::LinkKind;
using examples::Outcome;
using talvera::korvane::FailureKind;
using talvera::korvane::Korvane;
using talvera::korvane::PlainText;
using talvera::korvane::VendorInfo;

/// On CAN two hands with one id would answer each other's requests. A serial port has one hand,
/// which answers whatever id is asked.
Outcome<void> CheckIsFree(Korvane& hand, const HandAddress& where, std::uint8_t id) {
  if (where.link == LinkKind::SERIAL || id == hand.device_id) return {};
  const std::uint8_t own_id = hand.device_id;
  hand.device_id = id;
  const auto other = IdentifyHand(hand);
  hand.device_id = own_id;
  const FailureKind kind = other.failure().kind;
  if (kind == FailureKind::NO_REPLY) return {};
  if (!other && kind != FailureKind::BAD_REPLY) return other.failure();
  const std::string who = other ? std::string("a ") + ToString(*other) : "something unknown";
  return Failure{FailureKind::REFUSED, "",
                 "the id " + std::to_string(id) + " is taken: " + who + " answers under it", 0};
}

/// An object on a serial port listens all its life to the id of the first frame that comes, and
/// that may be the late acknowledgment under the old id: the second object hears the new one.
Outcome<AnyHand> OpenAnew(const HandAddress& where) {
  auto hand = OpenHand(where);
  return hand ? std::move(hand) : OpenHand(where);
}

/// Gives the hand an id, and asks under the new one whether it took it.
Outcome<AnyHand> GiveId(AnyHand hand, HandAddress where, std::uint8_t id) {
  const auto is_free = CheckIsFree(*hand, where, id);
  if (!is_free) return is_free.failure();
  where.model = examples::ModelOf(*hand);
  where.id = id;
  const auto sent = Checked(*hand, [&](Korvane& h) { h.SetDeviceId(id); });
  if (!sent) return sent.failure();
  if (where.link == LinkKind::SERIAL) {
    hand.reset();
    return OpenAnew(where);
  }
  const auto model = IdentifyHand(*hand);
  if (!model) return model.failure();
  return hand;
}

void Print(const std::string& where, const VendorInfo& vendor) {
  VendorInfo info = vendor;
  info.product_model = PlainText(vendor.product_model);
  info.serial_number = PlainText(vendor.serial_number);
  std::printf("%s\n%s", where.c_str(), info.ToString().c_str());
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Finds the hand on a bus without knowing its id.");
  examples::HandOptions where;
  where.model.clear();
  where.id = 0;
  int new_id = 0;
  examples::AddHandOptions(app, where);
  for (const char* const name : {"--model", "--id"}) {
    app.get_option(name)->default_str("whichever answers");
  }
  app.add_option("--set-id", new_id, "Gives the hand that was found this id")
      ->check(CLI::Range(1, 127));
  CLI11_PARSE(app, argc, argv);

  const auto address = examples::AddressOf(where);
  if (!address) return examples::Explain(address.failure());
  auto hand = OpenHand(*address);
  if (!hand) return examples::Explain(hand.failure());
  const std::string found = examples::Describe(where, **hand);
  if (new_id != 0) {
    hand = GiveId(*std::move(hand), *address, static_cast<std::uint8_t>(new_id));
    if (!hand) {
      std::fprintf(stderr, "%s did not get the id %d:\n", found.c_str(), new_id);
      return examples::Explain(hand.failure());
    }
    std::printf("%s has the id %d now.\n", found.c_str(), new_id);
  }
  const auto info = Checked(**hand, [](const Korvane& h) { return h.GetVendorInfo(); });
  if (!info) return examples::Explain(info.failure());
  Print(examples::Describe(where, **hand), *info);
  return EXIT_SUCCESS;
}
