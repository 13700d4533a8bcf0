#include "support/fake_library.h"

#include "util/bytes.h"

// The libraries' own declarations are weak and would make these definitions weak too, so they are
// written out here.

namespace talvera::korvane::test {
namespace {

constexpr std::size_t kFrameSize = 80;
constexpr std::size_t kInitSize = 20;

template <class... Numbers>
std::uint32_t Zlg(std::int64_t usual, const char* function, Numbers... numbers) {
  return static_cast<std::uint32_t>(fake_usbcanfd.Enter(usual, function, numbers...));
}

template <class... Numbers>
int Hcan(std::int64_t usual, const char* function, Numbers... numbers) {
  return static_cast<int>(fake_canbus.Enter(usual, function, numbers...));
}

Bytes Record(const void* record, std::size_t size) {
  const auto* const bytes = static_cast<const std::uint8_t*>(record);
  return {bytes, bytes + size};
}

void Transmitted(FakeLibrary& fake) {
  const auto action = fake->on_transmit;
  if (action) action();
}

/// Fills a field of fixed width, without a NUL if the text fills it.
void CopyText(const std::string& text, std::size_t width, std::uint8_t* field) {
  std::copy_n(text.begin(), std::min(text.size(), width), field);
}

}  // namespace
}  // namespace talvera::korvane::test

using namespace talvera::korvane::test;
using U32 = std::uint32_t;

extern "C" {

U32 VCI_OpenDevice(U32 type, U32 index, U32 /*reserved*/) {
  const int number = static_cast<int>(index);
  const auto action = std::exchange(fake_usbcanfd->on_open, nullptr);
  if (action) action();
  const bool there = type == 33 && fake_usbcanfd->devices.count(number) != 0;
  const bool opens = there && fake_usbcanfd->open.insert(number).second;
  return Zlg(opens ? 1 : 0, __func__, type, index);
}

U32 VCI_CloseDevice(U32 type, U32 index) {
  fake_usbcanfd->open.erase(static_cast<int>(index));
  return Zlg(1, __func__, type, index);
}

U32 VCI_ReadBoardInfo(U32 type, U32 index, void* info) {
  if (Zlg(1, __func__, type, index) == 0) return 0;
  const auto device = fake_usbcanfd->devices[static_cast<int>(index)];
  auto* const bytes = static_cast<std::uint8_t*>(info);
  bytes[10] = device.channels;
  CopyText(device.serial_number, 20, bytes + 11);
  CopyText(device.hardware_type, 40, bytes + 31);
  return 1;
}

U32 VCI_InitCAN(U32 type, U32 index, U32 channel, void* config) {
  fake_usbcanfd->records[__func__] = Record(config, kInitSize);
  return Zlg(1, __func__, type, index, channel);
}

U32 VCI_SetReference(U32 type, U32 index, U32 channel, U32 command, void* value) {
  const U32 number = talvera::korvane::LoadU32(static_cast<const std::uint8_t*>(value));
  return Zlg(1, __func__, type, index, channel, command, number);
}

U32 VCI_StartCAN(U32 type, U32 index, U32 channel) {
  return Zlg(1, __func__, type, index, channel);
}

U32 VCI_ResetCAN(U32 type, U32 index, U32 channel) {
  return Zlg(1, __func__, type, index, channel);
}

U32 VCI_TransmitFD(U32 type, U32 index, U32 channel, void* frames, U32 count) {
  fake_usbcanfd->records[__func__] = Record(frames, count * kFrameSize);
  Transmitted(fake_usbcanfd);
  return Zlg(count, __func__, type, index, channel, count);
}

U32 VCI_ReceiveFD(U32 type, U32 index, U32 channel, void* frames, U32 capacity, int wait_ms) {
  const auto call = FakeLibrary::Call(__func__, type, index, channel, capacity, wait_ms);
  return static_cast<U32>(fake_usbcanfd.Receive(call, static_cast<int>(index),
                                                static_cast<int>(channel), frames,
                                                capacity * kFrameSize, wait_ms));
}

int CAN_ScanDevice() {
  const auto devices = fake_canbus->devices;
  return Hcan(devices.empty() ? 0 : devices.rbegin()->first + 1, __func__);
}

int CAN_OpenDevice(int index, int channel) {
  const bool there = fake_canbus->devices.count(index) != 0;
  return Hcan(there ? 0 : -1, __func__, index, channel);
}

int CAN_CloseDevice(int index, int channel) { return Hcan(0, __func__, index, channel); }

int CAN_ReadDevInfo(int index, void* info) {
  if (Hcan(0, __func__, index) < 0) return -1;
  const auto device = fake_canbus->devices[index];
  auto* const bytes = static_cast<std::uint8_t*>(info);
  CopyText(device.serial_number, 32, bytes);
  CopyText(device.hardware_type, 32, bytes + 32);
  bytes[64] = device.channels;
  return 0;
}

int CAN_GetDevPlck(int index) { return Hcan(80'000'000, __func__, index); }

int CANFD_Init(int index, int channel, void* config) {
  fake_canbus->records[__func__] = Record(config, kInitSize);
  return Hcan(0, __func__, index, channel);
}

int CANFD_Transmit(int index, int channel, void* frames, int count, int timeout_ms) {
  fake_canbus->records[__func__] = Record(frames, static_cast<std::size_t>(count) * kFrameSize);
  Transmitted(fake_canbus);
  return Hcan(count, __func__, index, channel, count, timeout_ms);
}

int CANFD_Receive(int index, int channel, void* frames, int capacity, int wait_ms) {
  const auto call = FakeLibrary::Call(__func__, index, channel, capacity, wait_ms);
  const std::size_t room = static_cast<std::size_t>(capacity) * kFrameSize;
  return static_cast<int>(fake_canbus.Receive(call, index, channel, frames, room, wait_ms));
}
}
