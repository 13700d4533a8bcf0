#include "http_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <utility>

#include "../tool.h"

namespace korvane_tool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRequestTime = std::chrono::seconds(5);   // from the first byte to the last
constexpr auto kIdleTime = std::chrono::seconds(15);     // between two requests
constexpr auto kSendTime = std::chrono::seconds(10);     // without a byte that the client took
constexpr auto kFarewellTime = std::chrono::seconds(1);  // for what a refused client still sends
constexpr int kPollMs = 250;
constexpr int kBacklog = 64;
constexpr std::size_t kChunk = 16384;
/// What the kernel keeps for a client that doesn't read: a few readings, rather than a minute.
constexpr int kSendBuffer = 65536;

/// "127.0.0.1:80" or "[::1]:80".
std::string HostText(const std::string& address, int port) {
  const bool is_v6 = address.find(':') != std::string::npos;
  return fmt::format(is_v6 ? "[{}]:{}" : "{}:{}", address, port);
}

/// An address of either family as the system takes it.
struct SocketAddress {
  sockaddr_storage storage{};
  socklen_t size = sizeof(sockaddr_storage);

  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
  sockaddr_in& V4() { return reinterpret_cast<sockaddr_in&>(storage); }
  sockaddr_in6& V6() { return reinterpret_cast<sockaddr_in6&>(storage); }
  bool IsV6() const { return storage.ss_family == AF_INET6; }

  bool Parse(const std::string& text, int port) {
    const auto network_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET, text.c_str(), &V4().sin_addr) == 1) {
      V4().sin_family = AF_INET;
      V4().sin_port = network_port;
      size = sizeof(sockaddr_in);
      return true;
    }
    V6().sin6_family = AF_INET6;
    V6().sin6_port = network_port;
    size = sizeof(sockaddr_in6);
    return inet_pton(AF_INET6, text.c_str(), &V6().sin6_addr) == 1;
  }

  int Port() { return ntohs(IsV6() ? V6().sin6_port : V4().sin_port); }
  std::string Host() {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void* const address = IsV6() ? static_cast<const void*>(&V6().sin6_addr) : &V4().sin_addr;
    inet_ntop(storage.ss_family, address, text.data(), text.size());
    return HostText(text.data(), Port());
  }
};

SocketAddress LocalAddress(int socket) {
  SocketAddress address;
  getsockname(socket, address.Get(), &address.size);
  return address;
}

void SetOption(int socket, int level, int option, int value) {
  setsockopt(socket, level, option, &value, sizeof(value));
}

HttpAnswer Refusal(int status, const std::string& text) {
  return {status, "text/plain; charset=utf-8", text + "\n"};
}

void TellFull(int socket) {
  const std::string text = Refusal(503, "Too many are here already.").Bytes(false);
  [[maybe_unused]] const auto sent = send(socket, text.data(), text.size(), MSG_NOSIGNAL);
}

int OpenSpare() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

}  // namespace

/// One client.
class HttpConnection {
 public:
  explicit HttpConnection(int socket)
      : socket_(socket),
        local_host_(LocalAddress(socket).Host()),
        end_(Clock::now() + kRequestTime) {}
  ~HttpConnection() { close(socket_); }
  HttpConnection(const HttpConnection&) = delete;
  HttpConnection& operator=(const HttpConnection&) = delete;

  int Socket() const { return socket_; }
  bool IsStream() const { return stream_ != nullptr; }
  bool IsClosed() const { return closed_ || Clock::now() > end_; }
  /// Whether it could go without an answer being cut.
  bool Waits() const { return !IsStream() && !Sends(); }
  short Events() const {
    if (Sends() && !IsStream()) return POLLOUT;
    return static_cast<short>(POLLIN | (Sends() ? POLLOUT : 0));
  }

  /// Takes what the client has sent, and answers a request that is complete.
  template <class Answerer>
  void Read(const Answerer& answer) {
    std::array<char, kChunk> bytes;
    const auto count = recv(socket_, bytes.data(), bytes.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) {
      closed_ = true;
    } else if (!IsStream() && !Sends() && !says_goodbye_) {
      if (!reader_.HasBegun()) end_ = Clock::now() + kRequestTime;
      Take(bytes.data(), static_cast<std::size_t>(count), answer);
    }
  }

  /// Sends what is there to be sent, as far as the client takes it.
  void Send() {
    while (Sends() && !closed_) {
      const std::string& text = Sending();
      const auto count = send(socket_, text.data() + sent_, text.size() - sent_, MSG_NOSIGNAL);
      if (count < 0) {
        closed_ = errno != EAGAIN && errno != EINTR;
        return;
      }
      end_ = Clock::now() + kSendTime;
      sent_ += static_cast<std::size_t>(count);
      if (sent_ == text.size()) EndText();
    }
  }

  /// The newest text of its stream, if the client has taken the last one whole.
  void Follow() {
    if (!IsStream() || Sends()) return;
    auto newest = stream_->Get();
    if (newest == last_) return;
    last_ = newest;
    text_ = std::move(newest);
    end_ = Clock::now() + kSendTime;
    Send();
  }

 private:
  bool Sends() const { return text_ != nullptr; }
  const std::string& Sending() const { return *text_; }

  template <class Answerer>
  void Take(const char* bytes, std::size_t count, const Answerer& answer) {
    if (const int status = reader_.Add(bytes, count)) {
      keeps_ = false;
      Begin(Refusal(status, "This is no request that is taken here."));
      return;
    }
    auto request = reader_.Take();
    if (!request) return;
    request->local_host = local_host_;
    keeps_ = request->KeepsConnection();
    HttpAnswer begun = answer(*request);
    if (request->method == "HEAD") begun.body.clear();  // which its client wouldn't read
    Begin(begun);
  }

  void Begin(const HttpAnswer& answer) {
    stream_ = answer.stream;
    text_ = std::make_shared<const std::string>(answer.Bytes(keeps_ && !stream_));
    end_ = Clock::now() + kSendTime;
    Send();
  }

  void EndText() {
    text_ = nullptr;
    sent_ = 0;
    // A stream ends when its client or the server goes.
    if (IsStream()) {
      end_ = Clock::time_point::max();
    } else if (keeps_ && !reader_.HasBegun()) {
      end_ = Clock::now() + kIdleTime;
    } else {
      // Closing at once would take the answer from a client that is still sending. One that sends
      // requests without awaiting the answers has to come again.
      shutdown(socket_, SHUT_WR);
      says_goodbye_ = true;
      end_ = Clock::now() + kFarewellTime;
    }
  }

  int socket_;
  std::string local_host_;
  Clock::time_point end_;
  HttpReader reader_;
  bool keeps_ = true;
  bool says_goodbye_ = false;
  bool closed_ = false;
  std::shared_ptr<const Newest> stream_;
  Newest::Text last_;  ///< Of the stream.
  Newest::Text text_;  ///< What is being sent.
  std::size_t sent_ = 0;
};

bool IsOneAddress(const std::string& text) {
  SocketAddress address;
  if (!address.Parse(text, 0)) return false;
  const std::string host = address.Host();
  return host != HostText("0.0.0.0", 0) && host != HostText("::", 0);
}

HttpServer::HttpServer(const std::string& address, int port, Handler handler)
    : handler_(std::move(handler)), event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  SocketAddress place;
  if (!place.Parse(address, port)) throw ToolError(kUsage, address + " is no address");
  socket_ = socket(place.storage.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  SetOption(socket_, SOL_SOCKET, SO_REUSEADDR, 1);
  if (place.IsV6()) SetOption(socket_, IPPROTO_IPV6, IPV6_V6ONLY, 1);
  if (bind(socket_, place.Get(), place.size) != 0 || listen(socket_, kBacklog) != 0) {
    const std::string reason = std::strerror(errno);
    close(socket_);
    close(event_);
    throw ToolError(kFailed, fmt::format("{}: {}; --port names another one, 0 any that is free",
                                         HostText(address, port), reason));
  }
  host_ = LocalAddress(socket_).Host();
}

HttpServer::~HttpServer() {
  if (spare_ >= 0) close(spare_);
  close(socket_);
  close(event_);
}

void HttpServer::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(event_, &one, sizeof(one));
}

void HttpServer::Stop() {
  stopped_ = true;
  Wake();
}

void HttpServer::Run() {
  while (!stopped_) Step();
  connections_.clear();
}

void HttpServer::Step() {
  std::vector<pollfd> polled{{socket_, POLLIN, 0}, {event_, POLLIN, 0}};
  for (const auto& connection : connections_) {
    connection->Follow();
    polled.push_back({connection->Socket(), connection->Events(), 0});
  }
  poll(polled.data(), polled.size(), kPollMs);
  std::uint64_t events = 0;
  [[maybe_unused]] const auto count = read(event_, &events, sizeof(events));
  if (spare_ < 0) spare_ = OpenSpare();
  const auto answer = [this](const HttpRequest& request) { return Answer(request); };
  for (std::size_t i = 0; i < connections_.size(); ++i) {
    const short happened = polled[i + 2].revents;
    if ((happened & POLLOUT) != 0) connections_[i]->Send();
    if ((happened & ~POLLOUT) != 0) connections_[i]->Read(answer);
  }
  const auto closed = [](const auto& connection) { return connection->IsClosed(); };
  connections_.erase(std::remove_if(connections_.begin(), connections_.end(), closed),
                     connections_.end());
  if (polled[0].revents != 0) Accept();
}

HttpAnswer HttpServer::Answer(const HttpRequest& request) const {
  HttpAnswer answer = handler_(request);
  const auto streams = std::count_if(connections_.begin(), connections_.end(),
                                     [](const auto& other) { return other->IsStream(); });
  if (!answer.stream || static_cast<std::size_t>(streams) < kMostStreams) return answer;
  return Refusal(503, "Too many look on already.");
}

void HttpServer::Accept() {
  // No more than that at once, or who comes often enough keeps the others waiting.
  for (int i = 0; i < kBacklog; ++i) {
    const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (socket >= 0) {
      Welcome(socket);
    } else if ((errno != EMFILE && errno != ENFILE) || !(MakeRoom() || TurnOneAway())) {
      return;
    }
  }
}

void HttpServer::Welcome(int socket) {
  SetOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(socket, SOL_SOCKET, SO_SNDBUF, kSendBuffer);
  auto connection = std::make_unique<HttpConnection>(socket);
  if (connections_.size() < kMostConnections || MakeRoom()) {
    connections_.push_back(std::move(connection));
    return;
  }
  TellFull(socket);
}

/// Whoever can't be let in is told so: left in the queue, he would wake the server without end.
bool HttpServer::TurnOneAway() {
  close(std::exchange(spare_, -1));
  const int socket = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (socket >= 0) {
    TellFull(socket);
    close(socket);
  }
  spare_ = OpenSpare();
  return socket >= 0;
}

bool HttpServer::MakeRoom() {
  // They stand in the order in which they came.
  const auto oldest = std::find_if(connections_.begin(), connections_.end(),
                                   [](const auto& connection) { return connection->Waits(); });
  if (oldest == connections_.end()) return false;
  connections_.erase(oldest);
  return true;
}

}  // namespace korvane_tool
