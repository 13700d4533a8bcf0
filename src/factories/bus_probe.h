#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "can/can_bus_device.h"
#include "korvane_open.h"

// Who is on a CAN channel, asked through an open adapter that no hand holds. Takes over its
// callbacks. Nothing here writes a line.

namespace talvera::korvane {

/// A hand as it answered.
struct BusHand {
  std::uint8_t id;
  std::uint32_t family;
  VendorInfo vendor;
  /// Why there is no vendor record, if the hand told its id and no more.
  std::optional<Failure> vendor_failure = {};
  /// The serial number of another hand that answered under the same id.
  std::optional<std::string> rival = {};

  /// Nothing if it is none of the models, or didn't say.
  std::optional<Model> KnownModel() const;
  /// The failure of a hand that told its id on `link` and then answered no more.
  Failure VanishedOn(const std::string& link) const;
  /// The failure of an id that two hands on `link` have.
  Failure SharedOn(const std::string& link) const;
};

struct BusAnswers {
  std::vector<BusHand> hands;
  /// Why the channel takes no frames, if it doesn't, as one whose cable is out.
  std::optional<Failure> send_failure;
};

/// Asks every one of `ids` in each family, without waiting for one before the next, then waits for
/// answers, and asks those again that are silent.
BusAnswers AskBus(CanBusDeviceBase& device, const std::vector<std::uint8_t>& ids,
                  std::chrono::milliseconds answer_time);

/// Asks one id in each family, the one of `wanted` first; nobody else once that model has answered.
BusAnswers AskId(CanBusDeviceBase& device, std::uint8_t id, std::optional<Model> wanted);

/// The query for the vendor record.
CanfdFrame VendorQuery(std::uint32_t family, std::uint8_t id);

/// The record in its reply; nothing if the reply says nothing, like the query of another program
/// on the same interface, which has the same identifier.
std::optional<VendorInfo> VendorRecordIn(const CanfdFrame& reply);

/// How a request failed that threw.
Failure FailureOf(const std::exception& error);

}  // namespace talvera::korvane
