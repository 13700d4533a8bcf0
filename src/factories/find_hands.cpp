#include <algorithm>
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
  const std::lock_guard device_lock(ZlgUsbcanfdDevice::device_mutex_);
  ZlgUsbcanfdDevice::Scan();
  CanfdDeviceTable& table = CanfdDevices();
  const std::lock_guard lock(table.scan_cache_mutex_);
  std::vector<FoundAdapter> adapters;
  for (const auto& [index, device] : table.canfd_device_info_cache) {
    adapters.push_back({index, device.channels, device.ref_count > 0});
  }
  return adapters;
}

std::vector<FoundAdapter> HcanAdapters() {
  const auto devices = HcanDevice::ScanHcanDevices();
  const std::lock_guard lock(HcanDevice::device_mutex_);
  std::vector<FoundAdapter> adapters;
  for (const HcanDeviceInfo& device : devices) {
    const auto index = static_cast<std::uint8_t>(device.adapter_index);
    const auto count = HcanDevice::device_ref_count_.find(index);
    const bool in_use = count != HcanDevice::device_ref_count_.end() && count->second > 0;
    adapters.push_back({index, device.channels, in_use});
  }
  return adapters;
}

class Finder {
 public:
  explicit Finder(const FindOptions& options)
      : options_(options), ids_(options.ids.empty() ? EveryId() : options.ids) {
    const auto is_id = [](std::uint8_t id) { return id >= 1 && id <= 127; };
    ids_.erase(std::partition(ids_.begin(), ids_.end(), is_id), ids_.end());
  }

  FindResult Find() {
    if (!options_.places.empty()) {
      for (const HandAddress& place : options_.places) AskPlace(place);
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
      AskChannel(address);
    }
  }

  void AskAdapters(LinkKind kind, std::vector<FoundAdapter> (*adapters)()) {
    HandAddress address;
    address.link = kind;
    if (!AdapterLibraryIsThere(kind)) {
      if (IsNamed(kind)) {
        AddNotAsked({FailureKind::NO_LINK, "",
                     Compose(kind == LinkKind::ZLG ? "zlg" : "hcan", ": ", AdapterLibraryName(kind),
                             " not found"),
                     0});
      }
      return;
    }
    for (const FoundAdapter& adapter : adapters()) {
      address.adapter_index = adapter.index;
      for (unsigned channel = 0; channel < adapter.channels; ++channel) {
        address.channel = static_cast<std::uint8_t>(channel);
        AskUnlessInUse(address, adapter.in_use);
      }
    }
  }

  void AskPlace(HandAddress place) {
    place.model.reset();
    const auto checked = HandAddress::Parse(place.ToString());
    if (!checked) return AddNotAsked(checked.failure());
    if (place.link == LinkKind::SERIAL) return AskOnePort(place);
    if (!place.id) return AskChannel(place);
    const std::vector<std::uint8_t> all = std::exchange(ids_, {*place.id});
    AskChannel(place);
    ids_ = all;
  }

  void AskUnlessInUse(const HandAddress& address, bool in_use) {
    if (!in_use) return AskChannel(address);
    AddNotAsked({FailureKind::NO_LINK, "",
                 LinkText(address) + ": this process has hands on the adapter", 0});
  }

  void AskChannel(const HandAddress& address) {
    AskedLink link;
    BusAnswers answers;
    for (const std::uint8_t product : ProductTypesFor(address)) {
      if (auto failure = link.Open(address, product)) return AddNotAsked(*failure);
      answers = AskBus(link.Bus(), ids_, options_.answer_time);
      if (!answers.hands.empty()) break;
    }
    if (answers.send_failure && answers.hands.empty()) {
      AddNotAsked(*answers.send_failure);
      result_.not_asked.back().text = Compose(LinkText(address), ": ", answers.send_failure->text);
    }
    for (const BusHand& hand : answers.hands) Add(address, hand);
  }

  void AskPorts() {
    std::vector<std::string> ports = options_.serial_ports;
    if (IsAsked(LinkKind::SERIAL)) {
      for (const std::string& port : UsbSerialPorts()) {
        if (std::find(ports.begin(), ports.end(), port) == ports.end()) ports.push_back(port);
      }
    }
    for (const std::string& port : ports) {
      HandAddress address;
      address.link = LinkKind::SERIAL;
      address.port = port;
      address.baud = options_.baud;
      const auto checked = HandAddress::Parse(address.ToString());
      checked ? AskOnePort(address) : AddNotAsked(checked.failure());
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
    if (hand.vendor_failure) return AddNotAsked(hand.Gone(LinkText(address)));
    if (hand.rival) return AddNotAsked(hand.Doubled(LinkText(address)));
    const auto model = hand.IsModel();
    if (!model) {
      return AddNotAsked({FailureKind::BAD_REPLY, "",
                          Compose(LinkText(address), ": what answers with id ", hand.id,
                                  " is none of the models: ", Describe(hand.vendor)),
                          0});
    }
    address.model = model;
    address.id = hand.id;
    // Places may overlap, as "can0" and "can0:brisa:1" do.
    const auto is_same = [&](const FoundHand& other) { return other.address == address; };
    if (std::any_of(result_.hands.begin(), result_.hands.end(), is_same)) return;
    result_.hands.push_back({address, *model, hand.id, hand.vendor});
  }

  const FindOptions& options_;
  std::vector<std::uint8_t> ids_;
  FindResult result_;
};

}  // namespace

FindResult FindHands(const FindOptions& options) { return Finder(options).Find(); }

}  // namespace talvera::korvane
