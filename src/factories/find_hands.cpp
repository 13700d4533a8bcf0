#include <algorithm>
#include <set>
#include <utility>

#include "can/hcan_device.h"
#include "can/zlg_usbcanfd_device.h"
#include "factories/asked_link.h"
#include "factories/bus_probe.h"
#include "factories/known_models.h"
#include "factories/product_types.h"
#include "factories/serial_probe.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

constexpr std::chrono::milliseconds kLeastSerialAnswerTime(100);
/// What a read of a serial port may wait for, in bits.
constexpr int kSerialReadBits = 256 * 10;

/// One adapter, as a scan found it.
struct FoundAdapter {
  std::uint8_t index;
  std::uint8_t channels;
  bool in_use;
};

std::vector<FoundAdapter> ZlgAdapters() {
  const MutexLock device_lock(ZlgUsbcanfdDevice::device_mutex_);
  ZlgUsbcanfdDevice::Scan();
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  std::vector<FoundAdapter> adapters;
  for (const auto& [index, device] : table.canfd_device_info_cache) {
    adapters.push_back({index, device.channels, device.ref_count > 0});
  }
  return adapters;
}

/// Whether hands of this process are on a ZLG adapter. They have made it known, so that nothing
/// needs to be scanned.
bool HasZlgHands(const HandAddress& address) {
  CanfdDeviceTable& table = CanfdDevices();
  const MutexLock lock(table.scan_cache_mutex_);
  for (const auto& [index, device] : table.canfd_device_info_cache) {
    const bool is_it = address.adapter_index
                           ? index == *address.adapter_index
                           : device.serial_number.find(address.adapter_serial) != std::string::npos;
    if (is_it) return device.ref_count > 0;
  }
  return false;
}

std::vector<FoundAdapter> HcanAdapters() {
  const auto devices = HcanDevice::ScanHcanDevices();
  const MutexLock lock(HcanDevice::device_mutex_);
  std::vector<FoundAdapter> adapters;
  for (const HcanDeviceInfo& device : devices) {
    const auto index = static_cast<std::uint8_t>(device.adapter_index);
    const auto count = HcanDevice::device_ref_count_.find(index);
    const bool in_use = count != HcanDevice::device_ref_count_.end() && count->second > 0;
    adapters.push_back({index, device.channels, in_use});
  }
  return adapters;
}

/// Whether both are on one link, also where a port is named by two paths.
bool AreOnOneLink(HandAddress a, HandAddress b) {
  for (HandAddress* const address : {&a, &b}) {
    if (address->link == LinkKind::SERIAL) address->port = DeviceOf(address->port);
  }
  return LinkText(a) == LinkText(b);
}

class Finder {
 public:
  explicit Finder(const FindOptions& options)
      : options_(options), ids_(options.ids.empty() ? EveryId() : options.ids) {
    const auto is_id = [](std::uint8_t id) { return id >= 1 && id <= kMaxHandId; };
    ids_.erase(std::partition(ids_.begin(), ids_.end(), is_id), ids_.end());
  }

  FindResult Find() {
    if (!options_.places.empty()) {
      AskPlaces();
      return std::move(result_);
    }
    if (IsAsked(LinkKind::SOCKET_CAN)) AskInterfaces();
    if (IsAsked(LinkKind::ZLG)) AskAdapters(LinkKind::ZLG, &ZlgAdapters);
    if (IsAsked(LinkKind::HCAN)) AskAdapters(LinkKind::HCAN, &HcanAdapters);
    AskPorts();
    return std::move(result_);
  }

 private:
  bool IsNamed(LinkKind kind) const {
    return std::find(options_.links.begin(), options_.links.end(), kind) != options_.links.end();
  }
  bool IsAsked(LinkKind kind) const { return options_.links.empty() || IsNamed(kind); }

  void AddNotAsked(Failure failure) {
    failure.operation = "FindHands";
    result_.not_asked.push_back(std::move(failure));
  }

  void AskInterfaces() {
    for (const std::string& name : CanInterfaces()) {
      HandAddress address;
      address.interface_name = name;
      AskChannel(address, ids_);
    }
  }

  void AskAdapters(LinkKind kind, std::vector<FoundAdapter> (*adapters)()) {
    HandAddress address;
    address.link = kind;
    if (!AdapterLibraryIsThere(kind)) {
      if (IsNamed(kind)) {
        AddNotAsked({FailureKind::NO_LINK, "",
                     Compose(kind == LinkKind::ZLG ? "zlg" : "hcan", ": ", AdapterLibraryName(kind),
                             " not found")});
      }
      return;
    }
    for (const FoundAdapter& adapter : adapters()) {
      address.adapter_index = adapter.index;
      for (unsigned channel = 0; channel < adapter.channels; ++channel) {
        address.channel = static_cast<std::uint8_t>(channel);
        AskUnlessInUse(address, ids_, adapter.in_use);
      }
    }
  }

  /// What is wanted of one link, "any hand" before the ids.
  using Wanted = std::set<std::optional<std::uint8_t>>;

  /// Places may overlap, as "can0" and "can0:brisa:1" do: each link is asked once, for all of them.
  void AskPlaces() {
    std::vector<std::pair<HandAddress, Wanted>> links;
    for (HandAddress place : options_.places) {
      place.model.reset();
      const auto checked = HandAddress::Parse(place.ToString());
      if (!checked) {
        AddNotAsked(checked.failure());
        continue;
      }
      const auto id = std::exchange(place.id, std::nullopt);
      auto same = std::find_if(links.begin(), links.end(),
                               [&](const auto& link) { return AreOnOneLink(link.first, place); });
      if (same == links.end()) same = links.insert(same, {place, Wanted()});
      same->second.insert(id);
    }
    for (const auto& [link, wanted] : links) {
      if (link.link == LinkKind::SERIAL) {
        AskLine(link, wanted);
      } else {
        // Asking a ZLG channel stops it for all in the end. Hands on an HCAN adapter don't notice.
        AskUnlessInUse(link, IdsOf(wanted), link.link == LinkKind::ZLG && HasZlgHands(link));
      }
    }
  }

  std::vector<std::uint8_t> IdsOf(const Wanted& wanted) const {
    std::set<std::uint8_t> ids;
    for (const auto& id : wanted) {
      if (id) ids.insert(*id);
      if (!id) ids.insert(ids_.begin(), ids_.end());
    }
    return {ids.begin(), ids.end()};
  }

  /// Several hands may be on one line, and the one that answers to any id among those wanted.
  void AskLine(HandAddress address, const Wanted& wanted) {
    for (const auto& id : wanted) {
      address.id = id;
      const auto is_it = [&](const FoundHand& hand) {
        return hand.id == id && LinkText(hand.address) == LinkText(address);
      };
      if (std::none_of(result_.hands.begin(), result_.hands.end(), is_it)) AskOnePort(address);
    }
  }

  void AskUnlessInUse(const HandAddress& address, const std::vector<std::uint8_t>& ids,
                      bool in_use) {
    if (!in_use) return AskChannel(address, ids);
    AddNotAsked(
        {FailureKind::NO_LINK, "", LinkText(address) + ": this process has hands on the adapter"});
  }

  void AskChannel(const HandAddress& address, const std::vector<std::uint8_t>& ids) {
    AskedLink link;
    BusAnswers answers;
    for (const std::uint8_t product : ProductTypesFor(address)) {
      if (auto failure = link.Open(address, product)) return AddNotAsked(*failure);
      answers = AskBus(link.Bus(), ids, options_.answer_time);
      if (!answers.hands.empty()) break;
    }
    if (answers.send_failure && answers.hands.empty()) {
      AddNotAsked(*answers.send_failure);
      result_.not_asked.back().text = Compose(LinkText(address), ": ", answers.send_failure->text);
    }
    for (const BusHand& hand : answers.hands) Add(address, hand);
  }

  void AskPorts() {
    std::vector<std::string> ports;
    const auto add = [&](const std::vector<std::string>& more) {
      for (const std::string& port : more) {
        const bool known = std::any_of(ports.begin(), ports.end(), [&](const std::string& other) {
          return DeviceOf(other) == DeviceOf(port);
        });
        if (!known) ports.push_back(port);
      }
    };
    add(options_.serial_ports);
    if (IsAsked(LinkKind::SERIAL)) add(UsbSerialPorts());
    for (const std::string& port : ports) {
      HandAddress address;
      address.link = LinkKind::SERIAL;
      address.port = port;
      address.baud = options_.baud;
      const auto checked = HandAddress::Parse(address.ToString());
      if (checked) {
        AskOnePort(address);
      } else {
        AddNotAsked(checked.failure());
      }
    }
  }

  void AskOnePort(const HandAddress& address) {
    const std::chrono::milliseconds read_time(kSerialReadBits * 1000 / address.baud);
    const auto answer =
        AskPort(address, std::max(options_.answer_time, kLeastSerialAnswerTime + read_time));
    if (answer) {
      Add(address, {answer->hand->device_id, Known(Model::BRISA).family, answer->vendor});
    } else if (answer.failure().kind != FailureKind::NO_REPLY) {
      AddNotAsked(answer.failure());
    }
  }

  void Add(HandAddress address, const BusHand& hand) {
    if (hand.vendor_failure) return AddNotAsked(hand.VanishedOn(LinkText(address)));
    if (hand.rival) return AddNotAsked(hand.SharedOn(LinkText(address)));
    const auto model = hand.KnownModel();
    if (!model) {
      return AddNotAsked({FailureKind::BAD_REPLY, "",
                          Compose(LinkText(address), ": what answers with id ", hand.id,
                                  " is none of the models: ", Describe(hand.vendor))});
    }
    address.model = model;
    address.id = hand.id;
    address.side = SideOf(address);
    result_.hands.push_back({address, *model, hand.id, hand.vendor});
  }

  /// As the place says that names the hand, or else the first one on its link.
  HandType SideOf(const HandAddress& hand) const {
    for (const HandAddress& place : options_.places) {
      if (place.id == hand.id && AreOnOneLink(place, hand)) return place.side;
    }
    return hand.side;
  }

  const FindOptions& options_;
  std::vector<std::uint8_t> ids_;
  FindResult result_;
};

}  // namespace

FindResult FindHands(const FindOptions& options) { return Finder(options).Find(); }

}  // namespace talvera::korvane
