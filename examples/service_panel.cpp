// Reads all that the service interface of a hand tells into one report. It can also try out a limit
// of an axis, which it puts back, and write a serial number.
//
//   service_panel --hand can0:lumen:1
//   service_panel --model lumen --link socketcan --interface can0
//   service_panel --link serial --port /dev/ttyUSB0 --try-limit 3
//   service_panel --serial-number KB-2026-00017
//
// Nothing else may speak to the hand meanwhile, and over CAN no other hand may answer: requests of
// the service interface don't say which hand they mean.

#include <private_korvane_brisa.h>
#include <private_korvane_lumen.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "hand_options.h"

namespace {

using examples::AnyHand;
using examples::Failure;
using examples::HandAddress;
using examples::LinkKind;
using examples::Model;
using examples::Outcome;
using talvera::korvane::AxisLimitPos;
using talvera::korvane::FailureKind;
using talvera::korvane::Korvane;
using talvera::korvane::KorvaneBase;
using talvera::korvane::PlainText;
using talvera::korvane::PrivateKorvane;
using talvera::korvane::PrivateKorvaneBrisa;
using talvera::korvane::PrivateKorvaneLumen;
using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t kSerialNumberBytes = 19;
constexpr std::uint16_t kTrialStep = 100;
constexpr int kRecvTimeoutMs = 200;

template <class Hand>
AnyHand MakeOnCan(const HandAddress& where, std::uint8_t id) {
  if (where.link == LinkKind::SOCKET_CAN) {
    return Hand::createHandSocketCan(where.side, id, where.interface_name);
  }
  const auto make = [&](const auto& adapter) -> AnyHand {
    return where.link == LinkKind::HCAN
               ? Hand::createHandByHcan(where.side, id, adapter, where.channel)
               : Hand::createHandByZlgcan(where.side, id, adapter, where.channel);
  };
  return where.adapter_index ? make(*where.adapter_index) : make(where.adapter_serial);
}

AnyHand MakeService(const HandAddress& where, Model model, std::uint8_t id) {
  if (where.link == LinkKind::SERIAL) {
    return PrivateKorvaneBrisa::createHandByUsb(where.side, id, where.port, where.baud);
  }
  return model == Model::LUMEN ? MakeOnCan<PrivateKorvaneLumen>(where, id)
                               : MakeOnCan<PrivateKorvaneBrisa>(where, id);
}

/// Both faces of one hand. On a ZLG adapter the end of either stops the channel, so that the public
/// one stays as long as the other.
struct ServiceHand {
  AnyHand face;
  AnyHand service;
};

/// Whether the hand has a service interface, and is the one that answers there.
Outcome<void> CheckModel(const Korvane& service, Model model) {
  const auto answers = IdentifyHand(service);
  if (!answers) return answers.failure();
  if (*answers == model) return {};
  return Failure{FailureKind::REFUSED, "",
                 std::string("a ") + ToString(*answers) +
                     " answers on the service interface: leave only one hand on the bus",
                 0};
}

/// The public protocol tells whether the right hand is there, since the other one doesn't say whom
/// it means.
Outcome<ServiceHand> OpenService(const HandAddress& where) {
  auto face = OpenHand(where);
  if (!face) return face.failure();
  const Model model = examples::ModelOf(**face);
  const std::uint8_t id = (*face)->device_id;
  if (model != Model::BRISA && model != Model::LUMEN) {
    return Failure{FailureKind::NOT_SUPPORTED, "",
                   std::string("a ") + ToString(model) + " has no service interface", 0};
  }
  if (where.link == LinkKind::SERIAL) face->reset();  // a port belongs to one object
  ServiceHand hand{*std::move(face), MakeService(where, model, id)};
  if (!hand.service->connected) return LastFailure(*hand.service);
  hand.service->SetFrameRecvTimeout(kRecvTimeoutMs);
  const auto checked = CheckModel(*hand.service, model);
  if (!checked) return checked.failure();
  return hand;
}

template <class Value>
void PrintCell(const std::vector<Value>& values, std::size_t axis) {
  if (axis < values.size()) {
    std::printf(" %9d", static_cast<int>(values[axis]));
  } else {
    std::printf(" %9s", "-");
  }
}

void PrintList(const char* name, const Bytes& values) {
  std::printf("%-16s", name);
  for (const std::uint8_t value : values) std::printf(" %d", value);
  std::printf("%s\n", values.empty() ? " -" : "");
}

void PrintIdentity(const talvera::korvane::VendorInfo& info, const PrivateKorvane& service) {
  const auto version = service.GetFwVersion();
  std::printf("%-16s %s\n", "model", PlainText(info.product_model).c_str());
  std::printf("%-16s %s\n", "serial number", PlainText(info.serial_number).c_str());
  std::printf("%-16s %s (%s, %s)\n", "firmware", version.firmware.ToString().c_str(),
              version.first.ToString().c_str(), version.hardware.ToString().c_str());
  std::printf("%-16s %d\n", "active joints", version.last);
  PrintList("motor ids", service.GetAllElectricMotorId());
  PrintList("sensor ids", service.GetAllSensorId());
}

void PrintAxes(const PrivateKorvane& service, std::size_t axes) {
  const auto positions = service.GetAllAxisPos();
  const auto actual = service.GetAllActualAxisPos();
  const auto ranges = service.GetAllAxisPosRange();
  const AxisLimitPos limits = service.GetAxisLimitPos();
  const auto velocities = service.GetAllAxisVelocity();
  const auto currents = service.GetAllAxisCurrent();
  const auto loads = service.GetAllLoadData();
  const auto temperatures = service.GetAllAxisTemp();
  std::printf("\naxis  position    actual     lower     upper     range  velocity   current");
  std::printf("      load      temp\n");
  for (std::size_t axis = 0; axis < axes; ++axis) {
    std::printf("%4zu", axis + 1);
    for (const auto* column : {&positions, &actual, &limits.lower, &limits.upper, &ranges}) {
      PrintCell(*column, axis);
    }
    // Speeds and currents are signed.
    PrintCell(std::vector<std::int16_t>(velocities.begin(), velocities.end()), axis);
    PrintCell(std::vector<std::int16_t>(currents.begin(), currents.end()), axis);
    PrintCell(loads, axis);
    PrintCell(temperatures, axis);
    std::printf("\n");
  }
}

void PrintSensors(const PrivateKorvane& service, bool with_forces) {
  std::printf("\n");
  for (std::uint8_t sensor = 1; sensor <= 7; ++sensor) {
    PrintList(("sensor " + std::to_string(sensor)).c_str(), service.GetFingertipSensor(sensor));
  }
  PrintList("sensors 1 to 3", service.GetAllFingertipSensorA());
  PrintList("sensors 4 and 5", service.GetAllFingertipSensorB());
  PrintList("sensors 6 and 7", service.GetAllFingertipSensorC());
  if (with_forces) PrintList("forces", service.GetFingerTactileForce());
}

/// Moves the lower limit of an axis, reads it back, and puts it back.
bool TryLimit(PrivateKorvane& service, std::uint8_t axis) {
  const auto lower = [&] {
    const auto limits = service.GetAxisLimitPos().lower;
    return axis <= limits.size() ? int{limits[axis - 1U]} : -1;
  };
  const int before = lower();
  if (before < 0) {
    std::printf("\naxis %d: the hand told no limit of it\n", axis);
    return false;
  }
  const auto trial = static_cast<std::uint16_t>(before + kTrialStep);
  const bool moved = service.SetAxisMinPos(axis, trial) && lower() == trial;
  const bool restored =
      service.SetAxisMinPos(axis, static_cast<std::uint16_t>(before)) && lower() == before;
  std::printf("\nlower limit of axis %d: %d, %s, %s\n", axis, before, moved ? "moved" : "NOT moved",
              restored ? "put back" : "NOT PUT BACK");
  return moved && restored;
}

bool WriteSerialNumber(PrivateKorvane& service, const std::string& text) {
  Bytes number(text.begin(), text.end());
  number.resize(kSerialNumberBytes);
  const bool written = service.SetProductSerialNumber(number);
  const auto kept = service.GetProductSerialNumber();
  const bool same = written && std::memcmp(&kept, number.data(), number.size()) == 0;
  std::printf("\nserial number %s: %s\n", text.c_str(),
              same ? "written and read back; SaveParam would keep it" : "NOT written");
  return same;
}

/// What a hand doesn't tell shows as a dash.
void PrintReport(const KorvaneBase& hand, bool on_serial) {
  const auto& service = dynamic_cast<const PrivateKorvane&>(hand);
  const bool lumen = examples::ModelOf(hand) == Model::LUMEN;
  PrintIdentity(hand.GetVendorInfo(), service);
  std::printf("%-16s %d\n%-16s %d\n%-16s 0x%04x\n", "power", service.GetPowerState(),
              "control source", service.GetControlSource(), "error code", service.GetErrorCode());
  PrintAxes(service, lumen ? 4 : 10);
  if (!lumen) PrintSensors(service, !on_serial);
  PrintList("upload record", service.GetAllAxisCvp());
}

std::string ProblemOfSerialNumber(const std::string& text) {
  return !text.empty() && text.size() <= kSerialNumberBytes ? "" : "1 to 19 characters";
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Reads all that the service interface of a hand tells into one report.");
  examples::HandOptions where;
  std::uint8_t axis = 0;
  std::string serial_number;
  examples::AddHandOptions(app, where);
  app.get_option("--model")->check(CLI::IsMember({"brisa", "lumen"}));
  app.add_option("--try-limit", axis, "Move the lower limit of this axis and put it back")
      ->check(CLI::Range(1, 12));
  app.add_option("--serial-number", serial_number,
                 "Write this serial number, of 1 to 19 characters")
      ->check(ProblemOfSerialNumber);
  CLI11_PARSE(app, argc, argv);

  const auto address = examples::AddressOf(where);
  if (!address) return examples::Explain(address.failure());
  const auto opened = OpenService(*address);
  if (!opened) return examples::Explain(opened.failure());
  KorvaneBase& hand = *opened->service;
  bool good = true;
  const auto done = Checked(hand, [&](KorvaneBase& h) {
    PrintReport(h, address->link == LinkKind::SERIAL);
    auto& service = dynamic_cast<PrivateKorvane&>(h);
    if (axis != 0) good = TryLimit(service, axis) && good;
    if (!serial_number.empty()) good = WriteSerialNumber(service, serial_number) && good;
  });
  if (!done) return examples::Explain(done.failure());
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
