#include "factories/bus_probe.h"

#include <algorithm>
#include <map>
#include <memory>
#include <thread>

#include "factories/known_models.h"
#include "link/diagnostics.h"
#include "protocol/can/can_identifier.h"
#include "protocol/can/can_public_engine.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "util/guarded.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

constexpr int kRounds = 2;
constexpr int kVendorAttempts = 3;
constexpr int kVendorTimeoutMs = 100;
/// How long at least a second hand with the same id may take to answer, behind the first one.
constexpr std::chrono::steady_clock::duration kRivalTime = std::chrono::milliseconds(5);
/// Leaves most of the bus to others: a frame takes about 0.2 ms.
constexpr auto kPace = std::chrono::microseconds(500);
constexpr int kSendAttempts = 5;
constexpr auto kFullQueuePause = std::chrono::milliseconds(2);

/// By which a listener stands among the pending requests; no identifier on a bus.
constexpr std::uint32_t kListening = 0xFFFFFFFF;
constexpr std::uint32_t kReservedBit = 0x8000;

CanfdFrame Query(std::uint8_t function, std::uint32_t family, std::uint8_t id) {
  CanfdFrame frame;
  frame.can_id = FunctionField(function) | family | id;
  frame.len = kMaxPayload;
  return frame;
}

bool IsDeviceRecord(std::uint32_t can_id) {
  return FunctionOf(can_id) == function_code::kDeviceRecord && IndexOf(can_id) == 0 &&
         (can_id & (kWriteFlag | kReservedBit)) == 0;
}

/// Collects the device records that come in while it lives. On adapters that hand unasked frames
/// over it takes them there; on those that write a line for each it stands as a request that every
/// record answers.
class Listener {
 public:
  explicit Listener(CanBusDeviceBase& device) : device_(device) {
    device_.BindCallbacks([heard = heard_](const CanfdFrame& frame) { heard->Take(frame); },
                          [heard = heard_](std::uint32_t) { return heard->judged; },
                          [&device, heard = heard_](std::uint32_t, std::uint32_t received)
                              KORVANE_REQUIRES(device.request_mutex_) {
                                // What is stored under that identifier is about to be replaced.
                                const auto stored = device.umap_rep_.find(received);
                                if (stored != device.umap_rep_.end()) heard->Take(stored->second);
                                heard->judged = received;
                                return IsDeviceRecord(received);
                              });
    const MutexLock lock(device_.request_mutex_);
    device_.pending_req_ids_.insert(kListening);
  }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  ~Listener() {
    device_.BindCallbacks({}, {}, {});
    const MutexLock lock(device_.request_mutex_);
    device_.pending_req_ids_.erase(kListening);
    device_.umap_rep_.clear();
    device_.drain_cv_.notify_all();
  }

  /// Those that have answered so far, as family and id.
  std::vector<BusHand> Hands() {
    {
      const MutexLock lock(device_.request_mutex_);
      for (const auto& stored : device_.umap_rep_) heard_->Take(stored.second);
    }
    const MutexLock lock(heard_->mutex);
    std::vector<BusHand> hands;
    for (const auto& [id, family] : heard_->hands) hands.push_back({id, family, {}});
    return hands;
  }

 private:
  /// Shared with the callbacks, one of which may still be running when they are taken back.
  struct Heard {
    Mutex mutex;
    std::vector<std::pair<std::uint8_t, std::uint32_t>> hands KORVANE_GUARDED_BY(mutex);
    /// The identifier that was judged last, under which its frame is stored.
    std::uint32_t judged = 0;

    /// A record holds the id of its sender; a query of another program on the interface doesn't.
    void Take(const CanfdFrame& frame) {
      const std::uint32_t can_id = frame.can_id & kCanIdMask;
      const auto id = static_cast<std::uint8_t>(can_id & kDeviceIdMask);
      if (!IsDeviceRecord(can_id) || id == 0 || (frame.data[0] & kDeviceIdMask) != id) return;
      const std::pair hand(id, can_id & kFamilyMask);
      const MutexLock lock(mutex);
      const auto place = std::lower_bound(hands.begin(), hands.end(), hand);
      if (place == hands.end() || *place != hand) hands.insert(place, hand);
    }
  };

  CanBusDeviceBase& device_;
  std::shared_ptr<Heard> heard_ = std::make_shared<Heard>();
};

bool Contains(const std::vector<BusHand>& hands, std::uint32_t family, std::uint8_t id) {
  return std::any_of(hands.begin(), hands.end(),
                     [=](const BusHand& hand) { return hand.family == family && hand.id == id; });
}

/// A full send queue is given some time to empty.
bool Send(CanBusDeviceBase& device, CanfdFrame frame) {
  for (int i = 0; i < kSendAttempts; ++i) {
    if (device.SendFrame(frame.can_id, frame.data, frame.len) != -1) return true;
    std::this_thread::sleep_for(kFullQueuePause);
  }
  return false;
}

/// One round of questions to those that haven't answered. False if the channel takes no frames.
bool AskSilent(CanBusDeviceBase& device, Listener& listener, const std::vector<std::uint8_t>& ids) {
  const std::vector<BusHand> answered = listener.Hands();
  for (const std::uint32_t family : kFamilies) {
    for (const std::uint8_t id : ids) {
      if (Contains(answered, family, id)) continue;
      if (!Send(device, Query(function_code::kDeviceRecord, family, id))) return false;
      std::this_thread::sleep_for(kPace);
    }
  }
  return true;
}

/// The time-out of an adapter while it is asked through, given back in the end.
class ShortTimeout {
 public:
  explicit ShortTimeout(CanBusDeviceBase& device)
      : device_(device), before_(device.GetFrameRecvTimeout()) {
    device_.SetFrameRecvTimeout(kVendorTimeoutMs);
  }
  ~ShortTimeout() { device_.SetFrameRecvTimeout(before_); }
  ShortTimeout(const ShortTimeout&) = delete;
  ShortTimeout& operator=(const ShortTimeout&) = delete;

 private:
  CanBusDeviceBase& device_;
  int before_;
};

/// The serial numbers in all vendor records that come in while it lives.
class SerialNumbers {
 public:
  explicit SerialNumbers(CanBusDeviceBase& device) : device_(device) {
    device_.tap_.Set([heard = heard_](const FrameEvent& event) {
      if (!event.sent) heard->Take(event);
    });
  }
  ~SerialNumbers() { device_.tap_.Set({}); }
  SerialNumbers(const SerialNumbers&) = delete;
  SerialNumbers& operator=(const SerialNumbers&) = delete;

  /// That of another hand with the same id, if one has answered.
  std::optional<std::string> RivalOf(const BusHand& hand) const {
    const std::uint32_t can_id = VendorQuery(hand.family, hand.id).can_id;
    const MutexLock lock(heard_->mutex);
    for (const auto& [sender, number] : heard_->numbers) {
      if (sender == can_id && number != hand.vendor.serial_number) return number;
    }
    return std::nullopt;
  }

 private:
  /// Shared with the tap, a call of which may still be running when it is taken back.
  struct Heard {
    Mutex mutex;
    std::vector<std::pair<std::uint32_t, std::string>> numbers KORVANE_GUARDED_BY(mutex);

    void Take(const FrameEvent& event) {
      if (FunctionOf(event.id) != function_code::kVendorRecord) return;
      CanfdFrame frame;
      frame.can_id = event.id;
      std::copy_n(event.data, std::min(event.size, sizeof frame.data), frame.data);
      const auto record = VendorRecordIn(frame);
      const MutexLock lock(mutex);
      if (record) numbers.emplace_back(event.id, record->serial_number);
    }
  };

  CanBusDeviceBase& device_;
  std::shared_ptr<Heard> heard_ = std::make_shared<Heard>();
};

/// Asks a hand for its vendor record.
void AskVendor(CanBusDeviceBase& device, BusHand& hand) {
  try {
    const auto reply = device.SendRequestSynchInternal(VendorQuery(hand.family, hand.id));
    const auto record = VendorRecordIn(reply);
    hand.vendor_failure.reset();
    if (record) {
      hand.vendor = *record;
    } else {
      hand.vendor_failure = {FailureKind::NO_REPLY, "", "its vendor record is empty"};
    }
  } catch (const std::exception& error) {
    hand.vendor_failure = FailureOf(error);
  }
}

/// For a hand that has told its id.
void CompleteWithVendor(CanBusDeviceBase& device, BusHand& hand) {
  for (int i = 0; i < kVendorAttempts; ++i) {
    AskVendor(device, hand);
    if (!hand.vendor_failure) return;
  }
}

/// The same for a hand that may not be the only one with its id: listens as long again as the first
/// answer took.
void AskAlone(CanBusDeviceBase& device, BusHand& hand) {
  const SerialNumbers numbers(device);
  const auto begin = std::chrono::steady_clock::now();
  AskVendor(device, hand);
  if (hand.vendor_failure) return;
  const auto took = std::chrono::steady_clock::now() - begin;
  std::this_thread::sleep_for(std::max(kRivalTime, took));
  hand.rival = numbers.RivalOf(hand);
}

void BindForRequests(CanBusDeviceBase& device) {
  device.BindCallbacks({}, &ReplyIdOf, &AnswersRequest);
}

}  // namespace

std::optional<Model> BusHand::KnownModel() const {
  return vendor_failure ? std::nullopt : ModelOf(vendor, family);
}

Failure BusHand::VanishedOn(const std::string& link) const {
  Failure failure = vendor_failure.value_or(Failure());
  failure.text =
      Compose(link, ": the hand with id ", id, " told its id and then no more: ", failure.text);
  return failure;
}

Failure BusHand::SharedOn(const std::string& link) const {
  return {FailureKind::REFUSED, "",
          Compose(link, ": several hands have the id ", id, ", with the serial numbers \"",
                  PlainText(vendor.serial_number), "\" and \"", PlainText(*rival),
                  "\": give one of them another id while it is alone on the bus")};
}

Failure FailureOf(const std::exception& error) {
  const auto* const link_error = dynamic_cast<const LinkError*>(&error);
  if (link_error == nullptr) return {FailureKind::NO_REPLY, "", error.what()};
  return {link_error->Kind(), "", error.what(), link_error->SystemError()};
}

CanfdFrame VendorQuery(std::uint32_t family, std::uint8_t id) {
  return Query(function_code::kVendorRecord, family, id);
}

std::optional<VendorInfo> VendorRecordIn(const CanfdFrame& reply) {
  const bool quill = (reply.can_id & kFamilyMask) == Known(Model::QUILL).family;
  VendorInfo vendor = LoadVendorInfo(reply, quill && QuillRow::kModel.product_model_ends_at_nul);
  if (vendor.active_dof == 0 && PlainText(vendor.product_model).empty()) return std::nullopt;
  return vendor;
}

BusAnswers AskBus(CanBusDeviceBase& device, const std::vector<std::uint8_t>& ids,
                  std::chrono::milliseconds answer_time) {
  BusAnswers answers;
  {
    Listener listener(device);
    for (int round = 0; round < kRounds && !answers.send_failure; ++round) {
      if (AskSilent(device, listener, ids)) {
        std::this_thread::sleep_for(answer_time);
      } else {
        answers.send_failure = FailureOf(device.SendError("the link takes no frames"));
      }
    }
    answers.hands = listener.Hands();
  }
  BindForRequests(device);
  const ShortTimeout timeout(device);
  const SerialNumbers numbers(device);
  for (BusHand& hand : answers.hands) CompleteWithVendor(device, hand);
  if (!answers.hands.empty()) std::this_thread::sleep_for(answer_time);
  for (BusHand& hand : answers.hands) hand.rival = numbers.RivalOf(hand);
  return answers;
}

BusAnswers AskId(CanBusDeviceBase& device, std::uint8_t id, std::optional<Model> wanted) {
  BindForRequests(device);
  const ShortTimeout timeout(device);
  BusAnswers answers;
  auto families = kFamilies;
  if (wanted && Known(*wanted).family != families.front()) std::swap(families[0], families[1]);
  const auto goes_on = [&] { return answers.hands.empty() && !answers.send_failure; };
  for (int i = 0; i < kVendorAttempts && goes_on(); ++i) {
    for (const std::uint32_t family : families) {
      BusHand hand{id, family, {}};
      AskAlone(device, hand);
      if (!hand.vendor_failure) answers.hands.push_back(hand);
      if (wanted && hand.KnownModel() == wanted) return answers;
      if (hand.vendor_failure && hand.vendor_failure->kind == FailureKind::SEND_FAILED) {
        answers.send_failure = hand.vendor_failure;
      }
    }
  }
  return answers;
}

}  // namespace talvera::korvane
