#include <korvane_link.h>
#include <ota_load.h>

#include "definitions.h"
#include "log_queue.h"

namespace korvane_python {
namespace {

using kv::HandAddress;
using kv::LinkKind;

template <class T>
T Need(kv::Outcome<T> outcome, const std::string& where) {
  if (!outcome) Raise(outcome.failure(), where);
  return *std::move(outcome);
}

/// A hand without the service interface, in the same form.
kv::Outcome<kv::ServiceHand> OpenPublic(const std::string& text) {
  const auto address = HandAddress::Parse(text);
  if (!address) return address.failure();
  auto hand = kv::OpenHand(*address);
  if (!hand) return hand.failure();
  kv::ServiceHand opened{*address, nullptr, *std::move(hand)};
  opened.address.model = static_cast<kv::Model>(opened.hand->model_code);
  opened.address.id = opened.hand->device_id;
  return opened;
}

kv::Outcome<kv::ServiceHand> OpenService(const std::string& text) {
  // Longer than the 50 ms of the library: a hand that stores settings answers late.
  constexpr int kReplyMs = 200;
  auto opened = kv::OpenServiceHand(text);
  if (opened) opened->hand->SetFrameRecvTimeout(kReplyMs);
  return opened;
}

std::unique_ptr<Handle> MakeHandle(const std::string& address, bool service) {
  auto opened = InBackground(
      [address, service] { return service ? OpenService(address) : OpenPublic(address); });
  return std::make_unique<Handle>(Need(std::move(opened), address));
}

const char* NameOf(LinkKind link) {
  constexpr const char* kNames[] = {"socketcan", "zlg", "hcan", "serial"};
  return kNames[static_cast<std::size_t>(link)];
}

LinkKind LinkNamed(const std::string& name) {
  for (const auto link : {LinkKind::SOCKET_CAN, LinkKind::ZLG, LinkKind::HCAN, LinkKind::SERIAL}) {
    if (name == NameOf(link)) return link;
  }
  Raise({kv::FailureKind::BAD_ARGUMENT, "FindHands",
         "there is no kind of link " + name + "; there are socketcan, zlg, hcan, serial"},
        "");
}

/// address, model, id, side, link
py::tuple AddressTuple(const HandAddress& address) {
  const py::object model = address.model ? py::cast(ToString(*address.model)) : py::none();
  const py::object id = address.id ? py::cast(static_cast<int>(*address.id)) : py::none();
  return py::make_tuple(address.ToString(), model, id,
                        address.side == kv::HandType::LEFT ? "left" : "right",
                        NameOf(address.link));
}

py::tuple Parse(const std::string& address) {
  return AddressTuple(Need(HandAddress::Parse(address), address));
}

py::tuple Find(const std::vector<std::string>& links, const std::vector<std::string>& places,
               const std::vector<std::string>& serial_ports, int baud,
               const std::vector<std::uint8_t>& ids, int answer_ms) {
  kv::FindOptions options;
  options.links.reserve(links.size());
  options.places.reserve(places.size());
  for (const auto& link : links) options.links.push_back(LinkNamed(link));
  for (const auto& place : places) {
    options.places.push_back(Need(HandAddress::Parse(place), place));
  }
  options.serial_ports = serial_ports;
  options.baud = baud;
  options.ids = ids;
  options.answer_time = std::chrono::milliseconds(answer_ms);
  const kv::FindResult result = InBackground([options] { return kv::FindHands(options); });
  py::list hands;
  for (const kv::FoundHand& hand : result.hands) {
    hands.append(py::make_tuple(AddressTuple(hand.address), ToTuple(hand.vendor)));
  }
  py::list not_asked;
  for (const kv::Failure& failure : result.not_asked) {
    not_asked.append(py::make_tuple(ToString(failure.kind), failure.operation, failure.text,
                                    AdviceOn(failure), failure.system_error));
  }
  return py::make_tuple(hands, not_asked);
}

py::list Models() {
  py::list models;
  for (const kv::ModelInfo& info : kv::AllModels()) {
    models.append(py::make_tuple(info.name, info.class_name, info.positions, info.has_motors,
                                 info.position_max, info.gestures, info.has_service,
                                 info.has_serial, info.tells_by_reports));
  }
  return models;
}

/// Of a model that Models() has.
py::list Joints(std::uint8_t model, bool left) {
  py::list joints;
  const auto side = left ? kv::HandType::LEFT : kv::HandType::RIGHT;
  for (const kv::JointInfo& joint : kv::JointsOf(static_cast<kv::Model>(model), side)) {
    joints.append(py::make_tuple(joint.name, joint.lower, joint.upper, joint.active_index,
                                 joint.can_be_commanded));
  }
  return joints;
}

py::list LogLines(int at_most_ms) {
  py::list list;
  for (const LogLine& line :
       WithoutGil([&] { return TakeLogLines(std::chrono::milliseconds(at_most_ms)); })) {
    // A vendor's record may hold any bytes.
    list.append(py::make_tuple(
        line.level, py::reinterpret_steal<py::str>(PyUnicode_DecodeUTF8(
                        line.text.data(), static_cast<py::ssize_t>(line.text.size()), "replace"))));
  }
  return list;
}

py::tuple LookAtFirmware(const std::string& path) {
  const auto image = WithoutGil([&] { return kv::LoadFirmwareOnly(path); });
  return py::make_tuple(image.error_code, image.packet_count, image.file_size);
}

void Define(py::module_& module) {
  py::class_<Handle> hand(module, "Handle");
  hand.def(py::init(&MakeHandle));
  hand.def("close", &Handle::Close);
  hand.def_property_readonly("closed", &Handle::IsClosed);
  hand.def_property_readonly("updating", &Handle::IsUpdating);
  hand.def_property_readonly("address",
                             [](const Handle& handle) { return AddressTuple(handle.Address()); });
  DefinePublicOperations(hand);
  DefineServiceOperations(hand);
  DefineUpdate(module, hand);
  module.def("parse", &Parse);
  module.def("find", &Find);
  module.def("models", &Models);
  module.def("joints", &Joints);
  module.def("look_at_firmware", &LookAtFirmware);
  module.def("log_lines", &LogLines);
  module.def("end_log_lines", &EndLogLines);
  module.def("renew_log_lines", &RenewLogLines);
  module.attr("version") = kv::korvane_version();
}

}  // namespace
}  // namespace korvane_python

PYBIND11_MODULE(_korvane, module) {
  module.doc() = "The library's hands, for the modules of the package korvane.";
  korvane_python::CollectLogLines();
  korvane_python::kv::SetDefaultReceiving(korvane_python::kv::Receiving::BY_EVENTS);
  korvane_python::Define(module);
}
