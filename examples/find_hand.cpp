// Finds the hand on a bus without knowing its id, and can give it another one.
//
//   find_hand --link socketcan --interface can0
//   find_hand --link zlg --set-id 5

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "hand_options.h"

namespace {

using talvera::korvane::DeviceInfo;
using talvera::korvane::KorvaneBrisa;
using talvera::korvane::VendorInfo;

constexpr int kBroadcasts = 3;
constexpr std::uint8_t kLastId = 127;

/// A hand answers a broadcast within about 50 ms, whichever of the models with motors it is; a lost
/// frame is asked for again.
std::uint8_t AskBroadcast(const examples::HandOptions& where) {
  for (int i = 0; i < kBroadcasts; ++i) {
    const DeviceInfo info =
        where.link == "socketcan"
            ? KorvaneBrisa::GetDeviceInfoFromBroadcastSocketCan(where.interface)
            : KorvaneBrisa::GetDeviceInfoFromBroadcast(where.adapter, where.channel);
    if (info.device_id != 0) return info.device_id;
  }
  return 0;
}

/// A serial port has one hand, which answers whatever its id is.
std::uint8_t AskPort(const examples::HandOptions& where) {
  const auto hand = examples::OpenHand(where);
  hand->SetFrameRecvTimeout(500);
  return hand->GetDeviceInfo().device_id;
}

/// HCAN adapters and the KorvaneQuill have no broadcast: every id is asked in turn.
std::uint8_t AskEveryId(const examples::HandOptions& where) {
  const auto hand = examples::OpenHand(where);
  if (!hand->connected) return 0;
  hand->SetFrameRecvTimeout(10);
  for (std::uint8_t id = 1; id <= kLastId; ++id) {
    hand->device_id = id;
    if (hand->GetDeviceInfo().device_id == id) return id;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Finds the hand on a bus without knowing its id.");
  examples::HandOptions where;
  int new_id = 0;
  examples::AddHandOptions(app, where);
  app.remove_option(app.get_option("--id"));
  app.add_option("--set-id", new_id, "Gives the hand that was found this id")
      ->check(CLI::Range(1, 127));
  CLI11_PARSE(app, argc, argv);

  if (where.link == "serial") {
    where.id = AskPort(where);
  } else {
    const bool one_by_one = where.link == "hcan" || where.model == "quill";
    where.id = one_by_one ? AskEveryId(where) : AskBroadcast(where);
  }
  if (where.id == 0) {
    std::fprintf(stderr, "No hand answers on %s.\n", examples::DescribeLink(where).c_str());
    return EXIT_FAILURE;
  }
  const auto hand = examples::OpenHand(where);
  if (new_id != 0) {
    hand->SetDeviceId(static_cast<std::uint8_t>(new_id));
    if (hand->GetDeviceInfo().device_id != new_id) {
      std::fprintf(stderr, "The hand %d did not take the id %d.\n", where.id, new_id);
      return EXIT_FAILURE;
    }
    std::printf("The hand %d has the id %d now.\n", where.id, new_id);
  }
  VendorInfo info = hand->GetVendorInfo();
  // Over CAN the model text is 16 bytes, NUL bytes included.
  info.product_model.resize(std::min(info.product_model.find('\0'), info.product_model.size()));
  std::printf("Hand %d on %s:\n%s", hand->device_id, examples::DescribeLink(where).c_str(),
              info.ToString().c_str());
  return info.product_model.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
