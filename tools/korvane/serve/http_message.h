#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// What HTTP/1.1 says between a server and a client, as far as a page and its data need it: requests
// with a body of known length, and answers with a text or with a stream of events.

namespace korvane_tool {

/// One request, whole.
struct HttpRequest {
  std::string method;                          ///< "GET" and the like.
  std::string path;                            ///< "/api/hands", still escaped, without the query.
  std::string query;                           ///< What stands behind the question mark.
  std::map<std::string, std::string> headers;  ///< Names in small letters.
  std::string body;
  bool is_of_http_1_0 = false;
  /// How clients may name the server: the address at which this one reached it, and its port.
  std::string local_host;

  /// The value of a header; empty if it isn't there.
  std::string Header(const std::string& name) const;
  /// Whether the client awaits another answer on this connection.
  bool KeepsConnection() const;
  /// The value of a name in the query, or of a cookie; empty if it isn't there.
  std::string Parameter(const std::string& name) const;
  std::string Cookie(const std::string& name) const;
};

/// What a stream sends: the newest text whenever there is another one. What a slow client misses
/// isn't kept for it.
class Newest {
 public:
  using Text = std::shared_ptr<const std::string>;

  Newest() = default;
  Newest(const Newest&) = delete;
  Newest& operator=(const Newest&) = delete;
  virtual ~Newest() = default;

  /// Any thread.
  virtual Text Get() const = 0;
};

struct HttpAnswer {
  int status = 200;
  std::string type = "text/plain; charset=utf-8";
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers = {};
  std::shared_ptr<const Newest> stream = nullptr;  ///< In place of the body.

  /// The bytes, without those of the stream.
  std::string Bytes(bool keeps_connection) const;
};

/// Reads a request from the bytes of a connection as they come.
class HttpReader {
 public:
  static constexpr std::size_t kMostHead = 16384;
  static constexpr std::size_t kMostBody = 65536;

  /// Adds bytes. Returns a status of 400 or more once it is clear that they are no request that is
  /// taken, otherwise 0.
  int Add(const char* bytes, std::size_t count);
  /// The request that is complete, which goes out of the reader.
  std::optional<HttpRequest> Take();
  /// Whether a part of a request is there.
  bool HasBegun() const { return !bytes_.empty(); }

 private:
  int ReadHead();

  std::string bytes_;
  std::size_t body_at_ = 0;  ///< Where the body begins; 0 as long as the head isn't complete.
  std::size_t body_size_ = 0;
  HttpRequest request_;
};

}  // namespace korvane_tool
