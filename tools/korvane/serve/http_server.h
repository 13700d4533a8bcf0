#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "http_message.h"

namespace korvane_tool {

class HttpConnection;

/// Serves HTTP on one address, all connections in the thread that calls Run. Nothing that a client
/// does, or leaves undone, makes another one wait or takes more than a bounded room: there are so
/// many connections at most, the oldest that waits for a request goes when there are more, and one
/// that is late with its request, or takes nothing, is closed.
///
/// No library stands behind it: the one that Debian has keeps heads of any size in memory, and
/// gives each client a thread.
class HttpServer {
 public:
  static constexpr std::size_t kMostConnections = 128;
  static constexpr std::size_t kMostStreams = 32;

  /// Must not wait for anything: everybody waits meanwhile.
  using Handler = std::function<HttpAnswer(const HttpRequest&)>;

  /// Binds to an IPv4 or IPv6 address; port 0 is any free one. Throws a ToolError if it can't.
  HttpServer(const std::string& address, int port, Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Address and port, as they stand in a URL.
  const std::string& Host() const { return host_; }
  /// Serves until Stop.
  void Run();
  /// Any thread.
  void Stop();
  /// Tells that streams may have a newer text. Any thread; doesn't block.
  void Wake();

 private:
  void Accept();
  void Welcome(int socket);
  bool MakeRoom();
  bool TurnOneAway();
  void Step();
  HttpAnswer Answer(const HttpRequest& request) const;

  Handler handler_;
  int socket_ = -1;
  int event_ = -1;
  int spare_ = -1;  ///< Given up to turn a client away when the process may open no more files.
  std::string host_;
  std::atomic<bool> stopped_{false};
  std::vector<std::unique_ptr<HttpConnection>> connections_;
};

/// Whether that is an IPv4 or IPv6 address, of one place.
bool IsOneAddress(const std::string& text);

}  // namespace korvane_tool
