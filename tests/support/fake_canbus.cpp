#include "support/fake_canbus.h"

// The library's own declarations are weak and would make these definitions weak too, so they are
// written out here.

namespace talvera::korvane::test {

FakeLibrary& FakeCanBus() {
  static FakeLibrary library;
  return library;
}

namespace {

constexpr std::size_t kFrameSize = 80;
constexpr std::size_t kInitSize = 20;

int Enter(const std::string& call, int usual = 0) {
  return static_cast<int>(FakeCanBus().Enter(call, usual));
}

void CopyText(const std::string& text, std::size_t width, std::uint8_t* field) {
  std::copy_n(text.begin(), std::min(text.size(), width), field);
}

}  // namespace
}  // namespace talvera::korvane::test

using namespace talvera::korvane::test;

extern "C" {

int CAN_ScanDevice() { return Enter("CAN_ScanDevice", FakeCanBus().DeviceCount()); }

int CAN_OpenDevice(int index, int channel) {
  return Enter(FakeLibrary::Call("CAN_OpenDevice", index, channel),
               FakeCanBus().Plugged(index) ? 0 : -1);
}

int CAN_CloseDevice(int index, int channel) {
  return Enter(FakeLibrary::Call("CAN_CloseDevice", index, channel));
}

int CAN_ReadDevInfo(int index, void* info) {
  const int result = Enter(FakeLibrary::Call("CAN_ReadDevInfo", index));
  if (result < 0) return result;
  const auto device = FakeCanBus().DeviceAt(index);
  auto* const bytes = static_cast<std::uint8_t*>(info);
  CopyText(device.serial_number, 32, bytes);
  CopyText(device.hardware_type, 32, bytes + 32);
  bytes[64] = device.channels;
  return result;
}

int CAN_GetDevPlck(int index) {
  return Enter(FakeLibrary::Call("CAN_GetDevPlck", index), 80'000'000);
}

int CANFD_Init(int index, int channel, void* config) {
  FakeCanBus().Keep("CANFD_Init", config, kInitSize);
  return Enter(FakeLibrary::Call("CANFD_Init", index, channel));
}

int CANFD_Transmit(int index, int channel, void* frames, int count, int timeout_ms) {
  FakeCanBus().Keep("CANFD_Transmit", frames, static_cast<std::size_t>(count) * kFrameSize);
  return Enter(FakeLibrary::Call("CANFD_Transmit", index, channel, count, timeout_ms), count);
}

int CANFD_Receive(int index, int channel, void* frames, int capacity, int wait_ms) {
  return static_cast<int>(FakeCanBus().Receive(
      FakeLibrary::Call("CANFD_Receive", index, channel, capacity, wait_ms), index, channel, frames,
      static_cast<std::size_t>(capacity) * kFrameSize, wait_ms));
}
}
