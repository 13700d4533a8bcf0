#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <iostream>
#include <string>
#include <system_error>

#include "backend.h"
#include "socket_protocol.h"

namespace talvera::korvane::sim {
namespace {

class SocketLink final : public Link {
 public:
  explicit SocketLink(UniqueFd fd) : fd_(std::move(fd)) {}

  bool Send(const Frame& frame) override { return SendFrame(fd_.Get(), frame, 0); }

  std::vector<Frame> Receive(std::size_t capacity, std::chrono::milliseconds wait) override {
    std::vector<Frame> frames;
    pollfd waiting{fd_.Get(), POLLIN, 0};
    if (poll(&waiting, 1, static_cast<int>(wait.count())) <= 0) return frames;
    Frame frame;
    while (frames.size() < capacity && ReadFrame(fd_.Get(), frame) == ReadResult::kFrame) {
      frames.push_back(frame);
    }
    return frames;
  }

  void Close() override { shutdown(fd_.Get(), SHUT_RDWR); }

 private:
  UniqueFd fd_;  // Closed with the object only, when no thread uses it any more.
};

/// The simulator's socket. If nobody listens there, logs that the first time: who put the stand-in
/// in the library's place wants to know what it missed.
UniqueFd ConnectOrLog() {
  static std::atomic<bool> logged{false};
  UniqueFd fd = ConnectTo(SocketPath());
  const int error = errno;
  if (!fd && !logged.exchange(true)) {
    const std::string line = "korvane-sim stand-in: no simulator at " + SocketPath() + " (" +
                             std::generic_category().message(error) +
                             "): start korvane-sim, or name its socket in KORVANE_SIM_SOCKET\n";
    std::cerr << line << std::flush;
  }
  return fd;
}

/// Asks the simulator, one connection for each question. The stand-in libraries keep no connection
/// but those of started channels.
class SocketBackend final : public Backend {
 public:
  std::size_t Count(AdapterKind kind) override {
    const std::string answer = Ask(ConnectOrLog(), Operation::kCount, kind, 0, 0);
    return answer.size() == 2 ? static_cast<std::uint8_t>(answer[1]) : 0;
  }

  std::optional<AdapterInfo> Info(AdapterKind kind, std::size_t adapter) override {
    return DecodeInfo(Ask(ConnectOrLog(), Operation::kInfo, kind, adapter, 0));
  }

  std::shared_ptr<Link> Attach(std::size_t adapter, std::size_t channel) override {
    UniqueFd fd = ConnectOrLog();
    if (Ask(fd, Operation::kAttach, AdapterKind::kZlg, adapter, channel).empty()) return nullptr;
    return std::make_shared<SocketLink>(std::move(fd));
  }

 private:
  /// The whole answer, empty if there is none or it is a refusal.
  static std::string Ask(const UniqueFd& fd, Operation operation, AdapterKind kind,
                         std::size_t adapter, std::size_t channel) {
    if (!fd || adapter > 0xFF || channel > 0xFF) return {};
    const Question question{static_cast<std::uint8_t>(operation), static_cast<std::uint8_t>(kind),
                            static_cast<std::uint8_t>(adapter), static_cast<std::uint8_t>(channel)};
    if (send(fd.Get(), question.data(), question.size(), MSG_NOSIGNAL) < 0) return {};
    std::string answer(256, '\0');
    const ssize_t size = recv(fd.Get(), answer.data(), answer.size(), 0);
    if (size <= 0 || answer[0] != '\x01') return {};
    answer.resize(static_cast<std::size_t>(size));
    return answer;
  }
};

}  // namespace

std::shared_ptr<Backend> CurrentBackend() {
  // Hands with static storage may still call while the process ends.
  static auto* const backend = new std::shared_ptr<Backend>(std::make_shared<SocketBackend>());
  return *backend;
}

}  // namespace talvera::korvane::sim
