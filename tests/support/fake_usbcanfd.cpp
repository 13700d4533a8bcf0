#include "support/fake_usbcanfd.h"

// The library's own declarations are weak and would make these definitions weak too, so they are
// written out here.

namespace talvera::korvane::test {

FakeLibrary& FakeUsbCanFd() {
  static FakeLibrary library;
  return library;
}

namespace {

constexpr std::size_t kFrameSize = 80;
constexpr std::size_t kInitSize = 20;

std::uint32_t Enter(const std::string& call, std::int64_t usual = 1) {
  return static_cast<std::uint32_t>(FakeUsbCanFd().Enter(call, usual));
}

void CopyText(const std::string& text, std::size_t width, std::uint8_t* field) {
  std::copy_n(text.begin(), std::min(text.size(), width), field);
}

}  // namespace
}  // namespace talvera::korvane::test

using namespace talvera::korvane::test;
using std::uint32_t;

extern "C" {

uint32_t VCI_OpenDevice(uint32_t type, uint32_t index, uint32_t /*reserved*/) {
  const bool there = type == 33 && FakeUsbCanFd().Plugged(static_cast<int>(index));
  return Enter(FakeLibrary::Call("VCI_OpenDevice", type, index), there ? 1 : 0);
}

uint32_t VCI_CloseDevice(uint32_t type, uint32_t index) {
  return Enter(FakeLibrary::Call("VCI_CloseDevice", type, index));
}

uint32_t VCI_ReadBoardInfo(uint32_t type, uint32_t index, void* info) {
  if (Enter(FakeLibrary::Call("VCI_ReadBoardInfo", type, index)) == 0) return 0;
  const auto device = FakeUsbCanFd().DeviceAt(static_cast<int>(index));
  auto* const bytes = static_cast<std::uint8_t*>(info);
  bytes[10] = device.channels;
  CopyText(device.serial_number, 20, bytes + 11);
  CopyText(device.hardware_type, 40, bytes + 31);
  return 1;
}

uint32_t VCI_InitCAN(uint32_t type, uint32_t index, uint32_t channel, void* config) {
  FakeUsbCanFd().Keep("VCI_InitCAN", config, kInitSize);
  return Enter(FakeLibrary::Call("VCI_InitCAN", type, index, channel));
}

uint32_t VCI_SetReference(uint32_t type, uint32_t index, uint32_t channel, uint32_t command,
                          void* value) {
  const auto* const bytes = static_cast<const std::uint8_t*>(value);
  const int number = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | bytes[3] << 24;
  return Enter(FakeLibrary::Call("VCI_SetReference", type, index, channel, command, number));
}

uint32_t VCI_StartCAN(uint32_t type, uint32_t index, uint32_t channel) {
  return Enter(FakeLibrary::Call("VCI_StartCAN", type, index, channel));
}

uint32_t VCI_ResetCAN(uint32_t type, uint32_t index, uint32_t channel) {
  return Enter(FakeLibrary::Call("VCI_ResetCAN", type, index, channel));
}

uint32_t VCI_TransmitFD(uint32_t type, uint32_t index, uint32_t channel, void* frames,
                        uint32_t count) {
  FakeUsbCanFd().Keep("VCI_TransmitFD", frames, count * kFrameSize);
  return Enter(FakeLibrary::Call("VCI_TransmitFD", type, index, channel, count), count);
}

uint32_t VCI_ReceiveFD(uint32_t type, uint32_t index, uint32_t channel, void* frames,
                       uint32_t capacity, int wait_ms) {
  return static_cast<uint32_t>(FakeUsbCanFd().Receive(
      FakeLibrary::Call("VCI_ReceiveFD", type, index, channel, capacity, wait_ms),
      static_cast<int>(index), static_cast<int>(channel), frames, capacity * kFrameSize, wait_ms));
}
}
