#pragma once

#include "can/closed_library.h"

// Weak and visible for the same reasons as the functions of libusbcanfd.
#pragma GCC visibility push(default)
extern "C" {
[[gnu::weak]] int CAN_ScanDevice();
[[gnu::weak]] int CAN_OpenDevice(int index, int channel);
[[gnu::weak]] int CAN_CloseDevice(int index, int channel);
[[gnu::weak]] int CAN_ReadDevInfo(int index, void* info);
[[gnu::weak]] int CAN_GetDevPlck(int index);
[[gnu::weak]] int CANFD_Init(int index, int channel, void* config);
[[gnu::weak]] int CANFD_Transmit(int index, int channel, void* frames, int count, int timeout_ms);
[[gnu::weak]] int CANFD_Receive(int index, int channel, void* frames, int capacity, int wait_ms);
}
#pragma GCC visibility pop

namespace talvera::korvane {

/// The functions of libcanbus, each answering -1 (failure, or no frame) where it isn't there.
struct CanBusLibrary {
  template <class Signature>
  using Function = LibraryFunction<Signature, -1>;

  ClosedLibrary file{"libcanbus.so"};
  Function<decltype(CAN_ScanDevice)> scan_device{file, &CAN_ScanDevice, "CAN_ScanDevice"};
  Function<decltype(CAN_OpenDevice)> open_device{file, &CAN_OpenDevice, "CAN_OpenDevice"};
  Function<decltype(CAN_CloseDevice)> close_device{file, &CAN_CloseDevice, "CAN_CloseDevice"};
  Function<decltype(CAN_ReadDevInfo)> read_dev_info{file, &CAN_ReadDevInfo, "CAN_ReadDevInfo"};
  Function<decltype(CAN_GetDevPlck)> get_dev_pclk{file, &CAN_GetDevPlck, "CAN_GetDevPlck"};
  Function<decltype(CANFD_Init)> init{file, &CANFD_Init, "CANFD_Init"};
  Function<decltype(CANFD_Transmit)> transmit{file, &CANFD_Transmit, "CANFD_Transmit"};
  Function<decltype(CANFD_Receive)> receive{file, &CANFD_Receive, "CANFD_Receive"};
};

/// Bound at the first call. Never destroyed: a receive thread may outlive static objects.
inline const CanBusLibrary& CanBus() {
  static const auto* const library = new CanBusLibrary;
  return *library;
}

}  // namespace talvera::korvane
