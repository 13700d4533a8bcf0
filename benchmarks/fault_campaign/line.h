#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace talvera::korvane::bench {

using Bytes = std::vector<std::uint8_t>;

/// A request as the far end sees it.
struct Question {
  Bytes frame;  ///< CAN: id and payload. Serial: whole frame.
  unsigned kind;
  unsigned index;  ///< 0 for all motors.
};

/// How a far end hears and speaks. `Hear` returns after a while without a request.
class Line {
 public:
  virtual ~Line() = default;
  virtual std::optional<Question> Hear() = 0;
  virtual void Say(const Bytes& frame) = 0;
  virtual Bytes Reply(const Question& question, unsigned number, std::uint8_t id) = 0;
  /// Whether a reply behind another hand's frame may be taken twice.
  virtual bool RepeatsBehindForeign() const { return false; }
  /// The port whose far end this is, if it is one.
  virtual std::string Path() const { return {}; }
};

/// SocketCAN: a pair of sockets, or a bus of the kernel.
std::unique_ptr<Line> PairOfSockets();
std::unique_ptr<Line> KernelBus();
/// A bus behind the adapters of either kind.
std::unique_ptr<Line> AdapterBus();
std::unique_ptr<Line> SerialPort();

}  // namespace talvera::korvane::bench
