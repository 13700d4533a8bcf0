#pragma once

#include <cstdint>

#include "can/closed_library.h"

// Weak, so that a program that links the library itself, or a stand-in for it, is honoured.
// Visible, so that the loader may look outside libkorvane for them.
#pragma GCC visibility push(default)
extern "C" {
[[gnu::weak]] std::uint32_t VCI_OpenDevice(std::uint32_t type, std::uint32_t index,
                                           std::uint32_t reserved);
[[gnu::weak]] std::uint32_t VCI_CloseDevice(std::uint32_t type, std::uint32_t index);
[[gnu::weak]] std::uint32_t VCI_ReadBoardInfo(std::uint32_t type, std::uint32_t index, void* info);
[[gnu::weak]] std::uint32_t VCI_InitCAN(std::uint32_t type, std::uint32_t index,
                                        std::uint32_t channel, void* config);
[[gnu::weak]] std::uint32_t VCI_SetReference(std::uint32_t type, std::uint32_t index,
                                             std::uint32_t channel, std::uint32_t command,
                                             void* value);
[[gnu::weak]] std::uint32_t VCI_StartCAN(std::uint32_t type, std::uint32_t index,
                                         std::uint32_t channel);
[[gnu::weak]] std::uint32_t VCI_ResetCAN(std::uint32_t type, std::uint32_t index,
                                         std::uint32_t channel);
[[gnu::weak]] std::uint32_t VCI_TransmitFD(std::uint32_t type, std::uint32_t index,
                                           std::uint32_t channel, void* frames,
                                           std::uint32_t count);
[[gnu::weak]] std::uint32_t VCI_ReceiveFD(std::uint32_t type, std::uint32_t index,
                                          std::uint32_t channel, void* frames,
                                          std::uint32_t capacity, int wait_ms);
}
#pragma GCC visibility pop

namespace talvera::korvane {

/// The functions of libusbcanfd, each answering 0 (failure, or no frame) where it isn't there.
struct UsbCanFdLibrary {
  template <class Signature>
  using Function = LibraryFunction<Signature, 0>;

  ClosedLibrary file{"libusbcanfd.so"};
  Function<decltype(VCI_OpenDevice)> open_device{file, &VCI_OpenDevice, "VCI_OpenDevice"};
  Function<decltype(VCI_CloseDevice)> close_device{file, &VCI_CloseDevice, "VCI_CloseDevice"};
  Function<decltype(VCI_ReadBoardInfo)> read_board_info{file, &VCI_ReadBoardInfo,
                                                        "VCI_ReadBoardInfo"};
  Function<decltype(VCI_InitCAN)> init_can{file, &VCI_InitCAN, "VCI_InitCAN"};
  Function<decltype(VCI_SetReference)> set_reference{file, &VCI_SetReference, "VCI_SetReference"};
  Function<decltype(VCI_StartCAN)> start_can{file, &VCI_StartCAN, "VCI_StartCAN"};
  Function<decltype(VCI_ResetCAN)> reset_can{file, &VCI_ResetCAN, "VCI_ResetCAN"};
  Function<decltype(VCI_TransmitFD)> transmit_fd{file, &VCI_TransmitFD, "VCI_TransmitFD"};
  Function<decltype(VCI_ReceiveFD)> receive_fd{file, &VCI_ReceiveFD, "VCI_ReceiveFD"};
};

/// Bound at the first call. Never destroyed: a receive thread may outlive static objects.
inline const UsbCanFdLibrary& UsbCanFd() {
  static const auto* const library = new UsbCanFdLibrary;
  return *library;
}

}  // namespace talvera::korvane
