#include "protocol/serial/serial_link.h"

#include <stdexcept>
#include <system_error>
#include <utility>

#include "hand/hand_members.h"
#include "protocol/service/service_records.h"
#include "serial/usb_device.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr const char* kNotTaken = "the port didn't take the whole frame";

UsbFrameBuilder FrameOf(std::uint16_t device_id, ServiceCommand command,
                        const ServicePayload& payload) {
  UsbFrameBuilder frame(device_id, static_cast<std::uint8_t>(command));
  frame.AddData(payload.Data(), payload.Size());
  return frame;
}

/// The errno of an exception of the serial library, or of a thread that couldn't start; 0 if it has
/// none. The library's getter isn't const, though it changes nothing.
int SystemErrorOf(const std::exception& error) {
  const auto* const no_thread = dynamic_cast<const std::system_error*>(&error);
  if (no_thread != nullptr) return no_thread->code().value();
  const auto* const failed = dynamic_cast<const serial::IOException*>(&error);
  return failed != nullptr ? const_cast<serial::IOException*>(failed)->getErrorNumber() : 0;
}

template <class... Errors>
bool IsOneOf(const std::exception& error) {
  return ((dynamic_cast<const Errors*>(&error) != nullptr) || ...);
}

}  // namespace

SerialLink::SerialLink(const Korvane& hand) : hand_(hand) {}
SerialLink::~SerialLink() = default;

bool SerialLink::Open(const std::string& port, int baud, FrameCallback callback) {
  const auto operation = Operation("Open");
  try {
    device = std::make_unique<UsbSerialDevice>(port, static_cast<unsigned>(baud));
    device->frame_callback_ = std::move(callback);
    device->Init();
  } catch (const std::exception& error) {
    return OpenFailed(port, error.what(), SystemErrorOf(error));
  } catch (...) {
    return OpenFailed(port, "Unknown exception", 0);
  }
  if (!device->isOpen()) RecordFailure(diagnostics, FailureKind::NO_LINK, "no port is named");
  return device->isOpen();
}

bool SerialLink::OpenFailed(const std::string& port, const char* why, int system_error) {
  Close();
  open_failure_ = Compose("[Error]: Failed to open USB serial port ", port, ": ", why);
  open_error_ = system_error;
  LogError(open_failure_);
  RecordFailure(diagnostics, FailureKind::NO_LINK, open_failure_, open_error_);
  return false;
}

// The callback may read `device`, which therefore stays as it is until no callback can run.
void SerialLink::Close() {
  if (device) device->StopReceiving();
  device.reset();
}

UsbSerialDevice& SerialLink::Device() const {
  if (!device) throw NoPort("no transport");
  return *device;
}

// --- Failures -------------------------------------------------------------------------------

LinkError SerialLink::NoPort(const std::string& text) const {
  return {FailureKind::NO_LINK, text, open_error_};
}

bool SerialLink::CheckReady() const {
  if (!IsReady()) NoteFailure(diagnostics, FailureKind::NO_LINK, open_failure_, open_error_);
  return IsReady();
}

UsbSerialDevice* SerialLink::DeviceOrFailure() const {
  if (!device) NoteFailure(diagnostics, FailureKind::NO_LINK, open_failure_, open_error_);
  return device.get();
}

void SerialLink::LogRefused(FailureKind kind, const std::string& line) const {
  LogError(line);
  Record(kind, line);
}

void SerialLink::LogFailed(const std::string& line) const {
  LogError(line);
  AmendFailure(diagnostics, line);
}

void SerialLink::LogReadFailed(const std::string& line) const {
  LogInfo(line);
  AmendFailure(diagnostics, line);
}

std::optional<LinkError> SerialLink::Explain(const std::exception& error) const {
  if (const auto* const own = dynamic_cast<const LinkError*>(&error)) return *own;
  if (IsOneOf<serial::PortNotOpenedException>(error)) return NoPort(error.what());
  if (!IsOneOf<serial::IOException, serial::SerialException>(error)) return std::nullopt;
  const int told = SystemErrorOf(error);
  return LinkError(FailureKind::SEND_FAILED, error.what(),
                   told == 0 && device ? device->write_error_.load() : told);
}

void SerialLink::RecordThrown(const std::exception& error) const {
  const auto failed = Explain(error);
  if (!failed) return;
  korvane::RecordThrown(diagnostics, failed->Kind(), failed->what(), failed->SystemError());
}

void SerialLink::RecordException(const char* operation, const std::exception& error) const {
  const std::string line = Compose("[KorvaneBrisaSerialImpl] ", operation, ": ", error.what());
  LogError(line);
  const auto explained = Explain(error);
  if (explained) return RecordFailure(diagnostics, *explained, line);
  RecordFailure(diagnostics, error, line);
}

// --- Requests -------------------------------------------------------------------------------

bool SerialLink::Request(const char* operation, ServiceCommand command,
                         const ServicePayload& payload, SerialFrameCrcType crc) const {
  return RequestTo(DeviceIdOf(hand_), operation, command, payload, crc);
}

bool SerialLink::RequestTo(std::uint16_t device_id, const char* operation, ServiceCommand command,
                           const ServicePayload& payload, SerialFrameCrcType crc) const {
  try {
    UsbFrameBuilder frame = FrameOf(device_id, command, payload);
    const std::size_t size = frame.Finalize(crc);
    const auto exchanged = Device().Exchange(frame.Data(), size);
    if (exchanged == UsbSerialDevice::Exchanged::kReplied) return true;
    if (exchanged == UsbSerialDevice::Exchanged::kNotSent) {
      NoteFailure(diagnostics, FailureKind::SEND_FAILED, kNotTaken);
    } else {
      NoteFailure(diagnostics, FailureKind::NO_REPLY,
                  Compose("no frame within ", Device().GetFrameRecvTimeout(), " ms"));
    }
  } catch (const std::exception& error) {
    RecordException(operation, error);
  }
  return false;
}

void SerialLink::WriteOrThrow(const char* operation, const std::function<bool()>& write) const {
  const auto scope = Operation(operation);
  try {
    if (!write()) NoteFailure(diagnostics, FailureKind::SEND_FAILED, kNotTaken);
  } catch (const std::exception& error) {
    RecordThrown(error);
    throw;
  }
}

bool SerialLink::Write(const char* operation, ServiceCommand command,
                       const ServicePayload& payload) const {
  if (DeviceOrFailure() == nullptr) return false;
  try {
    UsbFrameBuilder frame = FrameOf(DeviceIdOf(hand_), command, payload);
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    if (device->WriteRaw(frame.Data(), size) == size) return true;
    NoteFailure(diagnostics, FailureKind::SEND_FAILED, kNotTaken);
  } catch (const std::exception& error) {
    RecordException(operation, error);
  }
  return false;
}

std::optional<ReplyCache::Bytes> SerialLink::Read(const char* operation, ServiceCommand command,
                                                  const ServicePayload& payload) const {
  if (!Request(operation, command, payload)) return std::nullopt;
  return TakeReply(SlotOf(command));
}

std::optional<ReplyCache::Bytes> SerialLink::ReadOrTakeEarlier(const char* operation,
                                                               ServiceCommand command) const {
  const bool answered = Request(operation, command, {});
  return TakeReply(SlotOf(command), answered);
}

std::optional<ReplyCache::Bytes> SerialLink::TakeReply(ReplySlot slot, bool answered) const {
  auto reply = replies.Take(slot);
  if (!reply && answered) {
    NoteFailure(diagnostics, FailureKind::BAD_REPLY,
                "a frame came, but none that answers the request");
  }
  return reply;
}

FwVersion SerialLink::QueryVersion(bool no_crc) const {
  if (!CheckReady()) return {};
  const auto crc = no_crc ? SerialFrameCrcType::kNoCrc : SerialFrameCrcType::kCrc16Ccitt;
  const bool answered = Request("GetFwVersion", ServiceCommand::kGetFwVersion, {}, crc);
  const auto reply = TakeReply(ReplySlot::kVersion, answered);
  return reply ? LoadFwVersion(reply->data()) : FwVersion{};
}

}  // namespace talvera::korvane
