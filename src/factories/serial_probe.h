#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "korvane_open.h"

namespace talvera::korvane {

class KorvaneBrisaSerialImpl;

/// A hand that answered on a serial port, with the object that asked it.
struct SerialAnswer {
  std::unique_ptr<KorvaneBrisaSerialImpl> hand;
  VendorInfo vendor;
};

/// Opens the port of an address and asks the hand of its id, or without one whichever is there,
/// twice for up to `answer_time` each. Writes the lines of the port, and one for a silent id.
Outcome<SerialAnswer> AskPort(const HandAddress& address, std::chrono::milliseconds answer_time);

/// The device that a port's path leads to by links; the path itself if it leads to none.
std::string DeviceOf(const std::string& port);

/// The USB serial ports below `devices`, which is /dev but in tests: each once, by its name in
/// serial/by-id if it has one, since that stays the same when it is plugged in elsewhere.
std::vector<std::string> UsbSerialPorts(const std::string& devices = "/dev");

}  // namespace talvera::korvane
