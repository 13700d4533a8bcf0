#include "output_file.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tool.h"

namespace korvane_tool {
namespace {

namespace fs = std::filesystem;

/// Who could read and write the old file can do so with the one that replaces it.
void TakePermissions(std::FILE* file, const std::string& old_path) {
  struct stat old {};
  if (stat(old_path.c_str(), &old) != 0) return;
  // Only root may give a file away; another user's file becomes one's own.
  [[maybe_unused]] int changed = fchown(fileno(file), old.st_uid, old.st_gid);
  changed = fchmod(fileno(file), old.st_mode & 0777U);
}

}  // namespace

OutputFile::OutputFile(const std::string& path, bool overwrite, Appears appears)
    : name_(path == "-" ? "the standard output" : path), path_(path) {
  if (path != "-" && path != "/dev/stdout") Open(overwrite, appears);
}

void OutputFile::Open(bool overwrite, Appears appears) {
  std::error_code unknown;
  const fs::file_status there = fs::status(path_, unknown);
  const bool replaces = fs::is_regular_file(there);
  const bool is_device = fs::exists(there) && !replaces;
  file_ = nullptr;
  errno = EEXIST;
  if (replaces && !overwrite) Fail(kUsage);
  if (appears == Appears::WHEN_WHOLE && !is_device) return WriteBeside(replaces);
  file_ = std::fopen(path_.c_str(), overwrite || is_device ? "we" : "wxe");
  if (file_ == nullptr) Fail(errno == EEXIST ? kUsage : kFailed);
}

/// In the same folder, so that it takes the place of the other in one step.
void OutputFile::WriteBeside(bool replaces) {
  std::error_code unknown;
  if (replaces) path_ = fs::canonical(path_, unknown);  // a link to a file stays one
  temporary_ = fmt::format("{}.part-{}", path_, getpid());
  unlink(temporary_.c_str());  // left by a process that was killed and had the same number
  file_ = std::fopen(temporary_.c_str(), "wxe");
  if (file_ == nullptr) Fail(kFailed);
  if (replaces) TakePermissions(file_, path_);
}

OutputFile::~OutputFile() {
  if (file_ != nullptr && !IsStandardOutput()) std::fclose(file_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

void OutputFile::Write(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), file_) != text.size()) Fail(kFailed);
}

void OutputFile::Flush() {
  if (std::fflush(file_) != 0) Fail(kFailed);
}

void OutputFile::Finish() {
  Flush();
  if (IsStandardOutput()) return;
  if (std::fclose(std::exchange(file_, nullptr)) != 0) Fail(kFailed);
  if (temporary_.empty()) return;
  if (std::rename(temporary_.c_str(), path_.c_str()) != 0) Fail(kFailed);
  temporary_.clear();
}

void OutputFile::Fail(int status) const {
  if (errno == EPIPE && IsStandardOutput()) throw NobodyReads();
  const char* const hint = status == kUsage ? "; --overwrite replaces it" : "";
  throw ToolError(status,
                  fmt::format("{} can't be written: {}{}", name_, std::strerror(errno), hint));
}

}  // namespace korvane_tool
