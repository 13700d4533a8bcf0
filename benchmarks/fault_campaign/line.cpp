#include "fault_campaign/line.h"

#include <linux/can.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <stdexcept>

#include "can_socket.h"
#include "fault_campaign/stamp.h"
#include "korvane_sim/in_process_adapters.h"
#include "serial/usb_frame.h"
#include "support/lent_sockets.h"
#include "support/pseudo_terminal.h"
#include "util/bytes.h"

namespace talvera::korvane::bench {
namespace {

/// On CAN a frame is its identifier, four bytes, and its payload.
class CanLine : public Line {
 protected:
  static std::optional<Question> Read(std::uint32_t id) {
    static const std::map<unsigned, unsigned> kinds{
        {0x13, kPosition}, {0x12, kVelocity}, {0x03, kThreshold}};
    if ((id & 0x7F) != kId) return std::nullopt;
    const unsigned index = id >> 24 & 0x1F;
    const auto known = kinds.find(id >> 16 & 0xFF);
    const unsigned kind = known == kinds.end() ? static_cast<unsigned>(kNoKind) : known->second;
    Bytes frame(4);
    StoreU32(frame.data(), id);
    return Question{frame, kind == kPosition && index == 0 ? kAllPositions : kind, index};
  }
  Bytes Reply(const Question& question, unsigned number, std::uint8_t id) override {
    const unsigned first = question.index == 0 ? 1 : question.index;
    const unsigned last = question.index == 0 ? kMotors : question.index;
    Bytes frame(4 + 2 * (last - first + 1));
    StoreU32(frame.data(), (LoadU32(question.frame.data()) & ~0x7FU) | id);
    for (unsigned i = first; i <= last; ++i) {
      StoreU16(&frame[4 + 2 * (i - first)], Stamp{number, i, question.kind}.Value());
    }
    return frame;
  }
};

/// The far end of a socket for CAN FD frames.
class SocketLine : public CanLine {
 public:
  ~SocketLine() override { close(socket_); }
  std::optional<Question> Hear() override {
    pollfd watched{socket_, POLLIN, 0};
    canfd_frame raw{};
    if (poll(&watched, 1, 20) < 1 || read(socket_, &raw, sizeof raw) <= 0) return std::nullopt;
    return Read(raw.can_id & CAN_EFF_MASK);
  }
  void Say(const Bytes& frame) override {
    canfd_frame raw{};
    raw.can_id = LoadU32(frame.data()) | CAN_EFF_FLAG;
    raw.len = static_cast<std::uint8_t>(frame.size() - 4);
    std::copy(frame.begin() + 4, frame.end(), raw.data);
    static_cast<void>(!write(socket_, &raw, sizeof raw));
  }

 protected:
  int socket_ = -1;
};

class KernelLine : public SocketLine {
 public:
  KernelLine() { socket_ = OpenCanSocket(); }
};

class PairLine : public SocketLine {
 public:
  PairLine() {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
      throw std::runtime_error("socketpair");
    }
    near_end_ = ends[0];
    socket_ = ends[1];
    lent_.emplace(std::vector<int>{near_end_});
  }
  ~PairLine() override {
    lent_.reset();
    close(near_end_);
  }

 private:
  int near_end_ = -1;
  std::optional<test::LentSockets> lent_;
};

class AdapterLine : public CanLine {
 public:
  std::optional<Question> Hear() override {
    const auto frame = port_->Receive(std::chrono::milliseconds(20));
    return frame ? Read(frame->id) : std::nullopt;
  }
  void Say(const Bytes& bytes) override {
    sim::Frame frame{LoadU32(bytes.data()), static_cast<std::uint8_t>(bytes.size() - 4), {}};
    std::copy(bytes.begin() + 4, bytes.end(), frame.data.begin());
    port_->Send(frame);
  }

 private:
  sim::InProcessAdapters adapters_;
  std::unique_ptr<sim::VirtualBus::Port> port_ = adapters_.Bus(0, 0).Open();
};

class SerialLine : public Line {
 public:
  std::optional<Question> Hear() override {
    const std::size_t size = bytes_.size() < 5 ? 0 : bytes_[kUsbFrameLength] + kUsbFrameOverhead;
    if (size == 0 || bytes_.size() < size) {
      const auto some = line_.ReadSome(20);
      bytes_.insert(bytes_.end(), some.begin(), some.end());
      return std::nullopt;
    }
    Question question{Bytes(bytes_.begin(), bytes_.begin() + static_cast<long>(size)), kNoKind, 0};
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<long>(size));
    const std::uint8_t command = question.frame[kUsbFrameCommand];
    if (command == 0x07) {
      question.kind = kPosition;
      question.index = question.frame[kUsbFrameData];
    }
    if (command == 0x09) question.kind = kAllPositions;
    if (command == 0x0A) question.kind = kAllCurrents;
    return question;
  }
  void Say(const Bytes& frame) override { line_.Write(frame); }
  Bytes Reply(const Question& question, unsigned number, std::uint8_t id) override {
    UsbFrameBuilder frame(id, question.frame[kUsbFrameCommand]);
    const unsigned index = question.index;
    if (index > 0) frame.AddUint8(static_cast<std::uint8_t>(index));
    for (unsigned i = index == 0 ? 1 : index; i <= (index == 0 ? kMotors : index); ++i) {
      frame.AddUint16(Stamp{number, i, question.kind}.Value());
    }
    const std::size_t size = frame.Finalize(SerialFrameCrcType::kCrc16Ccitt);
    return {frame.Data(), frame.Data() + size};
  }

  bool RepeatsBehindForeign() const override { return true; }

  std::string Path() const override { return line_.Path(); }

 private:
  test::PseudoTerminal line_;
  Bytes bytes_;
};

}  // namespace

std::unique_ptr<Line> PairOfSockets() { return std::make_unique<PairLine>(); }
std::unique_ptr<Line> KernelBus() { return std::make_unique<KernelLine>(); }
std::unique_ptr<Line> AdapterBus() { return std::make_unique<AdapterLine>(); }
std::unique_ptr<Line> SerialPort() { return std::make_unique<SerialLine>(); }

}  // namespace talvera::korvane::bench
