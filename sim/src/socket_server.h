#pragma once

#include <atomic>
#include <list>
#include <string>
#include <thread>

#include "bridge.h"
#include "world.h"

namespace talvera::korvane::sim {

/// Serves adapters to the stand-in libraries of other processes, at a Unix-domain socket.
class SocketServer {
 public:
  /// Takes the place of a dead simulator's socket. Throws std::runtime_error if something else is
  /// at `path` or it can't be made.
  SocketServer(std::string path, World& world);
  SocketServer(const SocketServer&) = delete;
  SocketServer& operator=(const SocketServer&) = delete;
  ~SocketServer();

 private:
  struct Session {
    UniqueFd fd;
    std::atomic<bool> done{false};
    std::thread thread;
  };

  void Accept();
  void StartSession(UniqueFd fd);
  void Serve(int fd);
  bool Answer(int fd, const Question& question);
  void JoinSessions(bool all);

  const std::string path_;
  World& world_;
  StopSignal stop_;
  UniqueFd listener_;
  std::list<Session> sessions_;  ///< Of the accepting thread.
  std::thread acceptor_;
};

}  // namespace talvera::korvane::sim
