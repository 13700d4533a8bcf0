#include "util/log.h"
#include "util/guarded.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <utility>

namespace talvera::korvane {
namespace {

/// The sink of the process; null for the streams.
struct SinkHolder {
  Mutex mutex;
  std::shared_ptr<const LogSink> sink KORVANE_GUARDED_BY(mutex);
};

/// Never destroyed: hands with static storage write lines while the process ends.
SinkHolder& TheSink() {
  static auto* const holder = new SinkHolder;
  return *holder;
}

/// A copy, so that a line can be handed over without the lock and a sink may set another one.
std::shared_ptr<const LogSink> CurrentSink() {
  SinkHolder& holder = TheSink();
  const MutexLock lock(holder.mutex);
  return holder.sink;
}

void Write(std::ostream& stream, const std::string& text) {
  stream.write(text.data(), static_cast<std::streamsize>(text.size()));
  stream.flush();
}

void WriteToStream(LogLevel level, std::string_view line) {
  Write(level >= LogLevel::WARNING ? std::cerr : std::cout, std::string(line) + "\n");
}

bool BeginsWith(std::string_view text, std::string_view with) {
  return text.substr(0, with.size()) == with;
}

LogLevel LevelOfErrorLine(std::string_view line) {
  return BeginsWith(line, "[WARN") || BeginsWith(line, "[Warn") ? LogLevel::WARNING
                                                                : LogLevel::ERROR;
}

LogLevel LevelOfInfoLine(std::string_view line) {
  return BeginsWith(line, "[DEBUG]") ? LogLevel::DETAIL : LogLevel::INFO;
}

/// Hands the line to the sink; false if there is none.
bool HandedOver(LogLevel level, std::string_view line) {
  const auto sink = CurrentSink();
  if (!sink) return false;
  (*sink)(level, line);
  return true;
}

}  // namespace

void LogError(const std::string& line) {
  if (!HandedOver(LevelOfErrorLine(line), line)) Write(std::cerr, line + "\n");
}

void LogErrorText(const std::string& text) {
  if (!HandedOver(LevelOfErrorLine(text), text)) Write(std::cerr, text);
}

void LogInfo(const std::string& line) {
  if (!HandedOver(LevelOfInfoLine(line), line)) Write(std::cout, line + "\n");
}

void LogDetail(const std::string& line) {
  if (!HandedOver(LogLevel::DETAIL, line)) Write(std::cout, line + "\n");
}

void LogDetailText(const std::string& text) {
  if (!HandedOver(LogLevel::DETAIL, text)) Write(std::cout, text);
}

// --- What applications call -----------------------------------------------------------------

void SetLogSink(LogSink sink) {
  auto next = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
  SinkHolder& holder = TheSink();
  {
    const MutexLock lock(holder.mutex);
    holder.sink.swap(next);
  }
  // The former sink goes here, without the lock: what it holds may write lines as it goes.
}

LogSink SilentLog() {
  return [](LogLevel, std::string_view) {};
}

namespace {

class LineBudget {
 public:
  explicit LineBudget(int lines_per_second) : most_(std::max(lines_per_second, 1)) {}

  /// Whether one more line may pass, and how many were left out since the last that did.
  struct Answer {
    bool passes;
    std::uint64_t left_out;
  };
  Answer Spend() {
    const auto now = std::chrono::steady_clock::now();
    const MutexLock lock(mutex_);
    if (now - begin_ >= std::chrono::seconds(1)) {
      begin_ = now;
      spent_ = 0;
    }
    if (spent_ == most_) return {false, ++left_out_};
    ++spent_;
    return {true, std::exchange(left_out_, 0)};
  }

 private:
  const int most_;
  Mutex mutex_;
  std::chrono::steady_clock::time_point begin_ KORVANE_GUARDED_BY(mutex_){};
  int spent_ KORVANE_GUARDED_BY(mutex_) = 0;
  std::uint64_t left_out_ KORVANE_GUARDED_BY(mutex_) = 0;
};

}  // namespace

LogSink RateLimitedLog(int lines_per_second, LogSink to) {
  if (!to) to = &WriteToStream;
  const auto budget = std::make_shared<LineBudget>(lines_per_second);
  return [budget, to = std::move(to)](LogLevel level, std::string_view line) {
    const auto answer = budget->Spend();
    if (!answer.passes) return;
    if (answer.left_out > 0) {
      to(LogLevel::WARNING, Compose("[WARN]: ", answer.left_out, " lines left out"));
    }
    to(level, line);
  };
}

}  // namespace talvera::korvane
