#include "update_note.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

namespace korvane_tool {
namespace {

/// Each note is that long, so that writing it is one step.
constexpr std::size_t kNoteSize = 64;
/// Their look, and the reply that they may be waiting for.
constexpr auto kTimeToClose = 5 * kUpdateCheck;

/// The file for a name, which may hold any character; empty without a name and without a
/// folder, which the environment may also give as an empty or a relative path.
std::string PathOf(const std::string& kind, const std::string& name) {
  const char* const folder = std::getenv("XDG_RUNTIME_DIR");
  if (folder == nullptr || *folder != '/' || name.empty()) return "";
  std::string path = fmt::format("{}/korvane-{}-", folder, kind);
  for (const char character : name)
    path += fmt::format("{:02x}", static_cast<unsigned char>(character));
  return path;
}

std::string NotePath(const std::string& serial_number) { return PathOf("update", serial_number); }

/// What all addresses of a hand at one place have in common; empty if they don't tell which hand it
/// is. A serial port has one hand.
std::string PlaceOf(HandAddress address) {
  if (address.link == LinkKind::SERIAL) {
    std::error_code unknown;
    const auto port = std::filesystem::canonical(address.port, unknown);
    return unknown ? address.port : port.string();
  }
  if (!address.id) return "";
  address.model.reset();
  address.side = HandAddress().side;
  return address.ToString();
}

/// A lock that others can look for without taking it, which would be in the way of who wants it.
struct flock Lock(short type) {
  struct flock lock {};
  lock.l_type = type;
  lock.l_whence = SEEK_SET;
  return lock;
}

bool TakeLock(int file) {
  const struct flock lock = Lock(F_WRLCK);
  return fcntl(file, F_OFD_SETLK, &lock) == 0;
}

bool IsLocked(int file) {
  struct flock lock = Lock(F_RDLCK);
  return fcntl(file, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

bool HasPath(int file, const std::string& path) {
  struct stat opened {};
  struct stat named {};
  return fstat(file, &opened) == 0 && stat(path.c_str(), &named) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
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

HeldFile::HeldFile(std::string path) : path_(std::move(path)) {
  if (path_.empty()) return;
  Open();
  // Who held it may have removed it in between, and it is no longer the file that others see.
  while (IsHeld() && !HasPath(file_, path_)) {
    Close();
    Open();
  }
}

HeldFile::~HeldFile() {
  if (IsHeld()) unlink(path_.c_str());
  Close();
}

void HeldFile::Open() {
  file_ = open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (file_ < 0 || TakeLock(file_)) return;
  held_by_another_ = errno == EAGAIN || errno == EACCES;
  Close();
}

void HeldFile::Close() {
  if (file_ >= 0) close(std::exchange(file_, -1));
}

void UpdateTurn::Take(const HandAddress& address) {
  const std::string path = PathOf("updates-at", PlaceOf(address));
  if (path.empty() || (file_ && file_->IsHeld())) return;
  file_.emplace(path);
  if (file_->IsHeldByAnother()) throw ToolError(kFailed, "another update of this hand is running");
}

UpdateNote::UpdateNote(const std::string& serial_number) : file_(NotePath(serial_number)) {
  Write(0, 0);
}

void UpdateNote::AwaitOthers() const {
  if (file_.IsHeld()) std::this_thread::sleep_for(kTimeToClose);
}

void UpdateNote::Write(int done, int total) const {
  if (!file_.IsHeld()) return;
  const std::string note = fmt::format(
      "{:<{}}\n", fmt::format(R"({{"done": {}, "total": {}}})", done, total), kNoteSize - 1);
  // An update goes on even if nobody can be told how far it is.
  [[maybe_unused]] const auto written = pwrite(file_.Descriptor(), note.data(), note.size(), 0);
}

std::optional<RunningUpdate> UpdateOf(const std::string& serial_number) {
  const std::string path = NotePath(serial_number);
  if (path.empty()) return std::nullopt;
  const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  if (file < 0) return std::nullopt;
  std::array<char, kNoteSize> note{};
  std::optional<RunningUpdate> update;
  // A note that nobody holds is left from a process that was killed.
  if (IsLocked(file)) {
    const ssize_t size = pread(file, note.data(), note.size(), 0);
    update = Parsed({note.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))});
  }
  close(file);
  return update;
}

}  // namespace korvane_tool
