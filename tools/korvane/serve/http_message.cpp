#include "http_message.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace korvane_tool {
namespace {

constexpr int kBadRequest = 400;
constexpr int kNoLength = 411;
constexpr int kBodyTooLarge = 413;
constexpr int kHeadTooLarge = 431;

const char* ReasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 303:
      return "See Other";
    case 401:
      return "Unauthorized";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    case 409:
      return "Conflict";
    case 415:
      return "Unsupported Media Type";
    case 500:
      return "Internal Server Error";
    case 503:
      return "Service Unavailable";
    case kNoLength:
      return "Length Required";
    case kBodyTooLarge:
      return "Content Too Large";
    case kHeadTooLarge:
      return "Request Header Fields Too Large";
    default:
      return status < 500 ? "Bad Request" : "Internal Server Error";
  }
}

std::string_view Trimmed(std::string_view text) {
  const auto begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

/// The value behind "name=" in a list such as "a=1; name=2".
std::string ValueIn(std::string_view list, char separator, const std::string& name) {
  while (!list.empty()) {
    const auto end = std::min(list.find(separator), list.size());
    const std::string_view item = Trimmed(list.substr(0, end));
    if (item.size() > name.size() && item[name.size()] == '=' &&
        item.substr(0, name.size()) == name)
      return std::string(item.substr(name.size() + 1));
    list.remove_prefix(std::min(end + 1, list.size()));
  }
  return {};
}

bool IsTokenCharacter(char c) {
  constexpr std::string_view kOthers = "!#$%&'*+-.^_`|~";
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         kOthers.find(c) != std::string_view::npos;
}

bool IsToken(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), IsTokenCharacter);
}

bool HasControlCharacters(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == '\x7F';
  });
}

bool ReadRequestLine(std::string_view line, HttpRequest& request) {
  const auto first = line.find(' ');
  const auto last = line.rfind(' ');
  if (first == std::string_view::npos || first == last) return false;
  const std::string_view target = line.substr(first + 1, last - first - 1);
  const std::string_view version = line.substr(last + 1);
  if (target.empty() || target[0] != '/' || target.find(' ') != std::string_view::npos)
    return false;
  if (version != "HTTP/1.1" && version != "HTTP/1.0") return false;
  const auto mark = std::min(target.find('?'), target.size());
  request.is_of_http_1_0 = version == "HTTP/1.0";
  request.method = line.substr(0, first);
  request.path = target.substr(0, mark);
  request.query = target.substr(std::min(mark + 1, target.size()));
  return IsToken(request.method);
}

std::string InSmallLetters(std::string_view text) {
  std::string small(text);
  std::transform(small.begin(), small.end(), small.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return small;
}

/// A header that stands twice, or goes on in the next line, is one that two readers may understand
/// differently: no request.
bool ReadHeader(std::string_view line, HttpRequest& request) {
  const auto colon = line.find(':');
  if (colon == std::string_view::npos || !IsToken(line.substr(0, colon))) return false;
  const std::string_view value = Trimmed(line.substr(colon + 1));
  return request.headers.emplace(InSmallLetters(line.substr(0, colon)), value).second;
}

bool ReadLines(std::string_view head, HttpRequest& request) {
  bool is_first = true;
  while (!head.empty()) {
    const auto end = head.find("\r\n");
    const std::string_view line = head.substr(0, end);
    if (HasControlCharacters(line)) return false;
    if (!(is_first ? ReadRequestLine(line, request) : ReadHeader(line, request))) return false;
    is_first = false;
    head.remove_prefix(end + 2);
  }
  return !is_first;
}

}  // namespace

std::string HttpRequest::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? std::string() : found->second;
}

bool HttpRequest::KeepsConnection() const {
  return !is_of_http_1_0 && InSmallLetters(Header("connection")).find("close") == std::string::npos;
}

std::string HttpRequest::Parameter(const std::string& name) const {
  return ValueIn(query, '&', name);
}

std::string HttpRequest::Cookie(const std::string& name) const {
  return ValueIn(Header("cookie"), ';', name);
}

std::string HttpAnswer::Bytes(bool keeps_connection) const {
  std::string bytes =
      fmt::format("HTTP/1.1 {} {}\r\nContent-Type: {}\r\n", status, ReasonOf(status), type);
  for (const auto& [name, value] : headers) bytes += fmt::format("{}: {}\r\n", name, value);
  if (!stream) bytes += fmt::format("Content-Length: {}\r\n", body.size());
  bytes += fmt::format("Connection: {}\r\n\r\n", keeps_connection ? "keep-alive" : "close");
  return stream ? bytes : bytes + body;
}

int HttpReader::Add(const char* bytes, std::size_t count) {
  bytes_.append(bytes, count);
  if (body_at_ != 0) return 0;
  const auto end = bytes_.find("\r\n\r\n");
  if (std::min(end, bytes_.size()) > kMostHead) return kHeadTooLarge;
  if (end == std::string::npos) return 0;
  body_at_ = end + 4;
  return ReadHead();
}

int HttpReader::ReadHead() {
  request_ = {};
  if (!ReadLines(std::string_view(bytes_).substr(0, body_at_ - 2), request_)) return kBadRequest;
  if (request_.headers.count("transfer-encoding") != 0) return kNoLength;
  body_size_ = 0;
  const auto length = request_.headers.find("content-length");
  if (length == request_.headers.end()) return 0;
  const char* const end = length->second.data() + length->second.size();
  const auto read = std::from_chars(length->second.data(), end, body_size_);
  if (read.ec == std::errc::result_out_of_range) return kBodyTooLarge;
  if (read.ec != std::errc() || read.ptr != end) return kBadRequest;
  return body_size_ > kMostBody ? kBodyTooLarge : 0;
}

std::optional<HttpRequest> HttpReader::Take() {
  if (body_at_ == 0 || bytes_.size() < body_at_ + body_size_) return std::nullopt;
  request_.body = bytes_.substr(body_at_, body_size_);
  bytes_.erase(0, body_at_ + body_size_);
  body_at_ = 0;
  return std::move(request_);
}

}  // namespace korvane_tool
