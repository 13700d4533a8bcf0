#pragma once

#include <memory>
#include <utility>

#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "simulated_end.h"
#include "support.h"
#include "support/recording_device.h"
#include "update/update_progress.h"

namespace talvera::korvane::fuzz {

using Maker = test::Rig<KorvaneBase>::Maker;

template <class Hand>
constexpr Maker kMake = &test::MakeHand<Hand, KorvaneBase>;

/// The classes of hands on CAN in the order of `Model`, then those of the service interface.
inline constexpr Maker kMakers[] = {
    kMake<KorvaneBrisaCanImpl>,       kMake<KorvaneTesselCanImpl>,
    kMake<KorvaneQuillCanImpl>,       kMake<KorvaneLumenCanImpl>,
    kMake<KorvaneVantaCanImpl>,       kMake<KorvaneBrisaCanPrivateImpl>,
    kMake<KorvaneLumenCanPrivateImpl>};

using Frames = std::vector<CanfdFrame>;

/// An adapter without a thread: whoever waits for a reply is handed what comes meanwhile. A wait
/// in which nothing comes is over at once.
class WaitedLink final : public CanBusDeviceBase {
 public:
  /// What comes while somebody waits, and what was sent since the last wait.
  std::function<Frames(const Frames& sent)> on_wait;
  DispatchRules rules;
  bool is_cut = false;  ///< Nothing goes out.

  bool Wait() {
    const Frames coming = on_wait(std::exchange(sent_, {}));
    for (const CanfdFrame& frame : coming) Dispatch(frame, rules);
    return !coming.empty();
  }

  int OpenDevice() override { return 0; }
  int CloseDevice() override { return 0; }
  void RecvFrame() override {}
  int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) override {
    if (is_cut) return -1;
    sent_.push_back(test::FullFrame(id, {data, data + kMaxPayload}, len));
    return 0;
  }

 private:
  bool TakeTurn() override {
    frame_recv_timeout_ms_ = 60'000;
    return true;
  }
  bool ReadInTurn(int) override {
    if (!Wait()) frame_recv_timeout_ms_ = -1;
    return true;
  }

  Frames sent_;
};

/// A hand on such an adapter, whose updates wait on a clock of its own, and a simulated one at the
/// other end of the bus. The shorter pauses of updates are those between the frames of a packet,
/// during which no reply is taken.
struct CanHand {
  explicit CanHand(Maker make) : CanHand(std::make_unique<WaitedLink>(), make) {}

  /// What the simulated hand answers.
  Frames Answers(const Frames& sent) {
    Frames replies;
    for (const CanfdFrame& frame : sent) {
      sim::Frame request{frame.can_id & kCanIdMask, frame.len, {}};
      std::copy_n(frame.data, request.data.size(), request.data.begin());
      for (const sim::Frame& reply : end.OnCan(request, clock.Now())) {
        const Bytes data(reply.data.begin(), reply.data.end());
        replies.push_back(test::FullFrame(reply.id, data, reply.len));
      }
    }
    return replies;
  }

  ScriptedClock clock;
  WaitedLink* link;
  std::unique_ptr<KorvaneBase> hand;
  SimulatedEnd end;

 private:
  CanHand(std::unique_ptr<WaitedLink> adapter, Maker make)
      : link(adapter.get()),
        hand(make(HandType::RIGHT, kId, std::move(adapter))),
        end(*sim::kModels[hand->model_code], sim::ServiceLink::kCan) {
    dynamic_cast<UpdateProgress&>(*hand).ota_clock = &clock;
    clock.on_sleep = [this](auto duration) {
      if (duration >= std::chrono::milliseconds(100)) link->Wait();
    };
  }
};

}  // namespace talvera::korvane::fuzz
