#include "factories/serial_probe.h"

#include <algorithm>
#include <filesystem>
#include <set>

#include "factories/asked_link.h"
#include "factories/known_models.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

namespace fs = std::filesystem;

constexpr int kAttempts = 2;

/// Gives the hand the id under which it answers. 0 if nobody does.
int LearnId(const KorvaneBrisaSerialImpl& hand) {
  for (int i = 0; i < kAttempts; ++i) {
    const DeviceInfo info = hand.GetDeviceInfo();
    if (info.device_id != 0) return info.device_id;
  }
  return 0;
}

VendorInfo AskVendor(const KorvaneBrisaSerialImpl& hand) {
  VendorInfo vendor;
  for (int i = 0; i < kAttempts && vendor.product_model.empty(); ++i) vendor = hand.GetVendorInfo();
  return vendor;
}

Failure OpenFailure(const KorvaneBrisaSerialImpl& hand, const std::string& port) {
  Failure failure = LastFailure(hand);
  if (failure.kind != FailureKind::NONE) return failure;
  return {FailureKind::NO_LINK, "", "Failed to open USB serial port " + port};
}

Failure NobodyWithThatId(const KorvaneBrisaSerialImpl& hand, const std::string& where, int id) {
  std::string text = Compose(where, ": no hand with id ", id, " answers");
  const int other = LearnId(hand);
  if (other != 0) text += Compose("; the one that is there has the id ", other);
  return {FailureKind::NO_REPLY, "", text};
}

/// The names in a folder that begin with `prefix`, in order; none if there is no such folder.
std::vector<fs::path> Names(const fs::path& folder, const std::string& prefix) {
  std::vector<fs::path> names;
  std::error_code error;
  for (fs::directory_iterator at(folder, error), end; !error && at != end; at.increment(error)) {
    if (at->path().filename().string().rfind(prefix, 0) == 0) names.push_back(at->path());
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace

Outcome<SerialAnswer> AskPort(const HandAddress& address, std::chrono::milliseconds answer_time) {
  if (auto problem = PortProblem(address.port)) return *problem;
  const std::string where = LinkText(address);
  SerialAnswer answer;
  answer.hand = std::make_unique<KorvaneBrisaSerialImpl>(address.side, address.id.value_or(1),
                                                         address.port, address.baud);
  KorvaneBrisaSerialImpl& hand = *answer.hand;
  if (!hand.connected) return OpenFailure(hand, address.port);
  // Otherwise a reply that comes before the request is written to its end is lost, as happens on a
  // busy machine.
  SetReceiving(hand, Receiving::BY_EVENTS);
  const int timeout_before = hand.GetFrameRecvTimeout();
  hand.SetFrameRecvTimeout(static_cast<int>(answer_time.count()));
  const int id = address.id ? *address.id : LearnId(hand);
  if (id == 0) return Failure{FailureKind::NO_REPLY, "", where + ": no hand answers"};
  if (id > kMaxHandId) {
    return Failure{
        FailureKind::BAD_REPLY, "",
        Compose(where, ": what answers has the id ", id, "; expected 1 to ", kMaxHandId)};
  }
  hand.device_id = static_cast<std::uint8_t>(id);
  answer.vendor = AskVendor(hand);
  if (answer.vendor.product_model.empty()) return NobodyWithThatId(hand, where, id);
  hand.SetFrameRecvTimeout(timeout_before);
  SetReceiving(hand, DefaultReceiving());
  return answer;
}

std::string DeviceOf(const std::string& port) {
  std::error_code error;
  const fs::path device = fs::canonical(port, error);
  return error ? port : device.string();
}

std::vector<std::string> UsbSerialPorts(const std::string& devices) {
  const fs::path root(devices);
  std::vector<fs::path> names = Names(root / "serial" / "by-id", "");
  for (const char* const prefix : {"ttyUSB", "ttyACM"}) {
    const auto more = Names(root, prefix);
    names.insert(names.end(), more.begin(), more.end());
  }
  std::vector<std::string> ports;
  std::set<fs::path> seen;
  for (const fs::path& name : names) {
    std::error_code error;
    const fs::path device = fs::canonical(name, error);
    if (!error && seen.insert(device).second) ports.push_back(name.string());
  }
  return ports;
}

}  // namespace talvera::korvane
