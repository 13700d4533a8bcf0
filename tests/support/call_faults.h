#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace talvera::korvane::test {

/// A call that fails, and how.
struct CallFault {
  std::string call;      ///< "read"; "ioctl" and the like stand for all their requests.
  int nth = 1;           ///< Which call of that name, counted from the beginning of the faults.
  bool goes_on = false;  ///< All later ones too.
  std::int64_t result = -1;
  int error = 0;  ///< errno.
  /// What an adapter's library writes into the record or the records that it was given, if any.
  std::optional<std::uint8_t> garbage = std::nullopt;
};

/// The system calls of a program that links call_faults.cpp, and the calls of both adapter
/// libraries, in front of the functions that it would call otherwise. Sockets for CAN may be lent
/// (lent_sockets.h). One object at a time.
class CallFaults {
 public:
  /// Counts from now on the calls of all threads of the process, and has one fail.
  explicit CallFaults(const CallFault& fault = {});
  CallFaults(const CallFaults&) = delete;
  CallFaults& operator=(const CallFaults&) = delete;
  ~CallFaults();

  /// Calls neither count nor fail.
  void Pause(bool paused);

  /// How often the call has failed, and with which errno.
  int Struck() const;
  int Error() const;
  /// What has been called, and how often.
  static std::vector<std::pair<std::string, int>> Counts();
};

}  // namespace talvera::korvane::test
