// What a client of `korvane serve` sends: in whatever pieces it comes, it is the same requests.

#include "serve/http_message.h"
#include "support.h"

using namespace talvera::korvane::fuzz;
using namespace korvane_tool;

namespace {

/// All that was understood, as a text; a status at its end if the client was sent away.
std::string Read(const std::string& bytes, std::size_t piece) {
  HttpReader reader;
  std::string read;
  for (std::size_t at = 0; at < bytes.size(); at += piece) {
    int status = reader.Add(&bytes[at], std::min(piece, bytes.size() - at));
    while (const auto request = status == 0 ? reader.Take() : std::nullopt) {
      Require(!request->method.empty() && request->path.at(0) == '/');
      Require(request->body.size() <= HttpReader::kMostBody);
      read += request->method + " " + request->path + " " + request->query + " " +
              request->Parameter("token") + " " + request->Cookie("korvane_80") + "\n";
      for (const auto& [name, value] : request->headers) {
        read.append(name).append(":").append(value).append("\n");
      }
      read += request->body + "\n";
      status = reader.Add("", 0);
    }
    if (status != 0) return read + std::to_string(status);
  }
  return read;
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  const std::size_t piece = 1 + input.Below(16);
  const std::string bytes = input.Rest();
  if (!bytes.empty()) Require(Read(bytes, bytes.size()) == Read(bytes, piece));
}
