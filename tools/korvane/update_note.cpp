#include "update_note.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <thread>

namespace korvane_tool {
namespace {

/// Each note is that long, so that writing it is one step.
constexpr std::size_t kNoteSize = 64;
/// Their look, and the reply that they may be waiting for.
constexpr auto kTimeToClose = 5 * kUpdateCheck;

/// Of the hand with that serial number, which may hold any character; empty without a folder.
std::string PathOf(const std::string& serial_number) {
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder == nullptr || serial_number.empty()) return "";
  std::string path = fmt::format("{}/korvane-update-", folder);
  for (const char character : serial_number)
    path += fmt::format("{:02x}", static_cast<unsigned char>(character));
  return path;
}

RunningUpdate Parsed(const std::string& note) {
  const Json json = Json::parse(note, nullptr, false);
  const auto number = [&](const char* key) {
    return json.is_object() && json.contains(key) && json[key].is_number_integer()
               ? json[key].get<int>()
               : 0;
  };
  return {number("done"), number("total")};
}

}  // namespace

UpdateNote::UpdateNote(const std::string& serial_number) : path_(PathOf(serial_number)) {
  if (path_.empty()) return;
  file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file_ < 0) return;
  if (flock(file_, LOCK_EX | LOCK_NB) != 0) {  // another update of this hand tells
    close(file_);
    file_ = -1;
    return;
  }
  Tell(0, 0);
}

UpdateNote::~UpdateNote() {
  if (file_ < 0) return;
  unlink(path_.c_str());
  close(file_);
}

void UpdateNote::AwaitOthers() const {
  if (file_ >= 0) std::this_thread::sleep_for(kTimeToClose);
}

void UpdateNote::Tell(int done, int total) const {
  if (file_ < 0) return;
  const std::string note = fmt::format(
      "{:<{}}\n", fmt::format(R"({{"done": {}, "total": {}}})", done, total), kNoteSize - 1);
  // What can't be told isn't worth the update.
  [[maybe_unused]] const auto written = pwrite(file_, note.data(), note.size(), 0);
}

std::optional<RunningUpdate> UpdateOf(const std::string& serial_number) {
  const std::string path = PathOf(serial_number);
  if (path.empty()) return std::nullopt;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (file < 0) return std::nullopt;
  std::array<char, kNoteSize> note{};
  std::optional<RunningUpdate> update;
  // A note that nobody holds is left from a process that was killed.
  if (flock(file, LOCK_SH | LOCK_NB) != 0) {
    const ssize_t size = pread(file, note.data(), note.size(), 0);
    update = Parsed({note.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))});
  }
  close(file);
  return update;
}

}  // namespace korvane_tool
