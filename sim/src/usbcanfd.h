#pragma once

#include <cstdint>

#define KORVANE_SIM_ADAPTER_FUNCTION __attribute__((visibility("default")))

namespace talvera::korvane::sim {

// Functions of the closed library of ZLG USBCANFD adapters. 0 is failure.
extern "C" {
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_OpenDevice(std::uint32_t type, std::uint32_t index,
                                                          std::uint32_t reserved);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_CloseDevice(std::uint32_t type, std::uint32_t index);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_ReadBoardInfo(std::uint32_t type,
                                                             std::uint32_t index, void* info);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_InitCAN(std::uint32_t type, std::uint32_t index,
                                                       std::uint32_t channel, void* config);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_SetReference(std::uint32_t type, std::uint32_t index,
                                                            std::uint32_t channel,
                                                            std::uint32_t command, void* value);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_StartCAN(std::uint32_t type, std::uint32_t index,
                                                        std::uint32_t channel);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_ResetCAN(std::uint32_t type, std::uint32_t index,
                                                        std::uint32_t channel);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_TransmitFD(std::uint32_t type, std::uint32_t index,
                                                          std::uint32_t channel, void* frames,
                                                          std::uint32_t count);
KORVANE_SIM_ADAPTER_FUNCTION std::uint32_t VCI_ReceiveFD(std::uint32_t type, std::uint32_t index,
                                                         std::uint32_t channel, void* frames,
                                                         std::uint32_t capacity, int wait_ms);
}

}  // namespace talvera::korvane::sim
