#include "socket_server.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace talvera::korvane::sim {
namespace {

constexpr std::size_t kMaxSessions = 256;

bool IsSocket(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 && S_ISSOCK(info.st_mode);
}

/// Removes what a simulator that was killed left behind.
void RemoveStaleSocket(const std::string& path) {
  if (!IsSocket(path)) throw std::runtime_error(path + " exists and is no socket");
  if (ConnectTo(path) || errno != ECONNREFUSED) {
    throw std::runtime_error("another korvane-sim serves " + path +
                             "; stop it or choose another path with --socket");
  }
  unlink(path.c_str());
}

UniqueFd Listen(const std::string& path) {
  UniqueFd fd = ListenAt(path);
  if (!fd && errno == EADDRINUSE) {
    RemoveStaleSocket(path);
    fd = ListenAt(path);
  }
  if (!fd) {
    throw std::runtime_error("can't serve " + path + ": " + std::generic_category().message(errno));
  }
  return fd;
}

void Reply(int fd, const std::string& message) {
  send(fd, message.data(), message.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

}  // namespace

SocketServer::SocketServer(std::string path, World& world)
    : path_(std::move(path)), world_(world), listener_(Listen(path_)) {
  acceptor_ = std::thread([this] { Accept(); });
}

SocketServer::~SocketServer() {
  stop_.Set();
  acceptor_.join();
  unlink(path_.c_str());
}

void SocketServer::Accept() {
  while (WaitToRead(listener_.Get(), stop_)) {
    UniqueFd fd(accept4(listener_.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    JoinSessions(false);
    if (!fd) {
      // Out of descriptors or the like: the connection stays in the queue.
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      continue;
    }
    if (sessions_.size() < kMaxSessions) StartSession(std::move(fd));
  }
  JoinSessions(true);
}

void SocketServer::StartSession(UniqueFd fd) try {
  Session& session = sessions_.emplace_back();
  session.fd = std::move(fd);
  session.thread = std::thread([this, &session] {
    try {
      Serve(session.fd.Get());
    } catch (const std::system_error&) {
      // No thread to be had for this client: it loses its connection.
    }
    shutdown(session.fd.Get(), SHUT_RDWR);
    session.done = true;
  });
} catch (const std::system_error&) {
  sessions_.pop_back();
}

void SocketServer::Serve(int fd) {
  while (WaitToRead(fd, stop_)) {
    Question question{};
    const ssize_t size = recv(fd, question.data(), question.size(), MSG_TRUNC | MSG_DONTWAIT);
    if (size != static_cast<ssize_t>(question.size())) return;
    if (!Answer(fd, question)) return;
  }
}

/// False when the connection is at its end.
bool SocketServer::Answer(int fd, const Question& question) {
  const auto kind = question[1] == 0 ? AdapterKind::kZlg : AdapterKind::kHcan;
  const std::string refusal(1, '\0');
  switch (static_cast<Operation>(question[0])) {
    case Operation::kCount:
      Reply(fd, {'\x01', static_cast<char>(world_.Count(kind))});
      return true;
    case Operation::kInfo: {
      const auto info = world_.Info(kind, question[2]);
      Reply(fd, info ? EncodeInfo(*info) : refusal);
      return true;
    }
    case Operation::kAttach: {
      const auto link = world_.Attach(question[2], question[3]);
      Reply(fd, link ? std::string(1, '\x01') : refusal);
      if (!link) return true;
      const auto write = [](int to, const Frame& frame) {
        return SendFrame(to, frame, MSG_DONTWAIT) || errno != EAGAIN;
      };
      CarryFrames({fd, ReadFrame, write}, *link, stop_);
      return false;
    }
  }
  return false;
}

void SocketServer::JoinSessions(bool all) {
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (!all && !it->done) {
      ++it;
      continue;
    }
    it->thread.join();
    it = sessions_.erase(it);
  }
}

}  // namespace talvera::korvane::sim
