#pragma once

#define KORVANE_SIM_ADAPTER_FUNCTION __attribute__((visibility("default")))

namespace talvera::korvane::sim {

// Functions of the closed library of HCAN adapters. A negative result is failure.
extern "C" {
KORVANE_SIM_ADAPTER_FUNCTION int CAN_ScanDevice();
KORVANE_SIM_ADAPTER_FUNCTION int CAN_OpenDevice(int index, int channel);
KORVANE_SIM_ADAPTER_FUNCTION int CAN_CloseDevice(int index, int channel);
KORVANE_SIM_ADAPTER_FUNCTION int CAN_ReadDevInfo(int index, void* info);
KORVANE_SIM_ADAPTER_FUNCTION int CAN_GetDevPlck(int index);
KORVANE_SIM_ADAPTER_FUNCTION int CANFD_Init(int index, int channel, void* config);
KORVANE_SIM_ADAPTER_FUNCTION int CANFD_Transmit(int index, int channel, void* frames, int count,
                                                int timeout_ms);
KORVANE_SIM_ADAPTER_FUNCTION int CANFD_Receive(int index, int channel, void* frames, int capacity,
                                               int wait_ms);
}

}  // namespace talvera::korvane::sim
