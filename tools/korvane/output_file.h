#pragma once

#include <cstdio>
#include <exception>
#include <string>

namespace korvane_tool {

/// When what is written stands under the file's name.
enum class Appears {
  AT_ONCE,     ///< It can be followed, and stays however the command ends.
  WHEN_WHOLE,  ///< With Finish. Without that a file that was there before stays as it was.
};

/// A file that a full disk can't make shorter unseen: each write is checked.
class OutputFile {
 public:
  /// "-" and "/dev/stdout" are the standard output; devices and pipes are written as they are.
  /// Throws a ToolError if it can't be opened: a usage error if another file is there and
  /// `overwrite` isn't set.
  OutputFile(const std::string& path, bool overwrite, Appears appears);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  /// Throws a ToolError that names the file and the reason, or NobodyReads.
  void Write(const std::string& text);
  /// Writes out what is buffered, and checks that.
  void Flush();
  /// The same, and nothing is written behind it.
  void Finish();
  bool IsStandardOutput() const { return file_ == stdout; }

 private:
  void Open(bool overwrite, Appears appears);
  void WriteBeside(bool replaces);
  [[noreturn]] void Fail(int status) const;

  std::string name_;  ///< For people.
  std::string path_;
  std::string temporary_;  ///< The path until Finish, where that is another one.
  std::FILE* file_ = stdout;
};

/// Whoever read the standard output has enough, as `head` has, which isn't a failure.
class NobodyReads : public std::exception {};

}  // namespace korvane_tool
