#include "terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>

#include "common/standard_streams.h"

namespace korvane_tool {
namespace {

constexpr std::size_t kDefaultWidth = 80;
constexpr std::size_t kDefaultHeight = 24;
constexpr const char* kReset = "\x1b[0m";

/// By Colour.
constexpr std::array<const char*, 6> kSequences = {"",         "\x1b[32m", "\x1b[33m",
                                                   "\x1b[31m", "\x1b[2m",  "\x1b[1m"};

bool IsContinuation(char byte) { return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80; }

/// Where the character or escape sequence at `begin` ends, and whether it takes a column.
struct Piece {
  std::size_t end;
  bool visible;
};
Piece PieceAt(const std::string& text, std::size_t begin) {
  if (text[begin] == '\x1b') {
    const std::size_t letter = text.find_first_of("mKAJH", begin);
    return {letter == std::string::npos ? text.size() : letter + 1, false};
  }
  std::size_t end = begin + 1;
  while (end < text.size() && IsContinuation(text[end])) ++end;
  return {end, true};
}

std::string Cut(const std::string& text, std::size_t width) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Piece piece = PieceAt(text, at);
    if (piece.visible && ++columns > width)
      return text.substr(0, at) + (HasColours() ? kReset : "");
    at = piece.end;
  }
  return text;
}

std::size_t Size(unsigned short winsize::*side, std::size_t otherwise) {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.*side > 0;
  return known ? size.*side : otherwise;
}

}  // namespace

bool OnTerminal() {
  static const bool on = [] {
    const char* const terminal = std::getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && std::string(terminal) != "dumb";
  }();
  return on;
}

bool HasColours() {
  static const bool has = [] {
    const char* const off = std::getenv("NO_COLOR");
    return OnTerminal() && (off == nullptr || *off == '\0');
  }();
  return has;
}

std::size_t TerminalWidth() { return Size(&winsize::ws_col, kDefaultWidth); }

std::string Coloured(const std::string& text, Colour colour) {
  if (!HasColours() || colour == Colour::PLAIN) return text;
  return kSequences.at(static_cast<std::size_t>(colour)) + text + kReset;
}

std::size_t Columns(const std::string& text) {
  std::size_t columns = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Piece piece = PieceAt(text, at);
    columns += piece.visible ? 1 : 0;
    at = piece.end;
  }
  return columns;
}

std::string Bar(double part, std::size_t width) {
  const double filled = std::clamp(part, 0.0, 1.0) * static_cast<double>(width);
  const auto whole = static_cast<std::size_t>(std::lround(filled));
  std::string bar;
  for (std::size_t i = 0; i < width; ++i) bar += i < whole ? "█" : "·";
  return bar;
}

std::string HeatCell(std::uint8_t value) {
  if (HasColours()) {
    return fmt::format("\x1b[48;2;{};{};{}m {}", value, value / 4, 255 - value, kReset);
  }
  constexpr std::string_view kShades = " .:-=+*#%@";
  return std::string(1, kShades[value * kShades.size() / 256]);
}

std::string TextTable::ToString() const {
  std::vector<std::size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Columns(row[i]));
  }
  std::string text;
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i) {
      line += row[i] + std::string(widths[i] - Columns(row[i]) + 2, ' ');
    }
    text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  return text;
}

LiveArea::LiveArea() {
  if (OnTerminal()) korvane_common::WriteToStdout("\x1b[?25l");
}

LiveArea::~LiveArea() {
  if (!OnTerminal()) return;
  korvane_common::WriteToStdout("\x1b[?25h");
  korvane_common::FlushStdout();
}

void LiveArea::Draw(std::vector<std::string> lines) {
  if (!OnTerminal()) return;
  // What has scrolled off the top can't be drawn anew. The cursor stands below the last line.
  const std::size_t room = std::max<std::size_t>(Size(&winsize::ws_row, kDefaultHeight), 3) - 1;
  if (lines.size() > room) {
    const std::size_t hidden = lines.size() - room + 1;
    lines.resize(room - 1);
    lines.push_back(
        Coloured(fmt::format("… {} more lines in a higher window", hidden), Colour::DIM));
  }
  std::string text = drawn_ > 0 ? fmt::format("\x1b[{}A", std::min(drawn_, room)) : "";
  for (const std::string& line : lines) text += Cut(line, TerminalWidth()) + "\x1b[K\n";
  text += "\x1b[J";
  drawn_ = lines.size();
  korvane_common::WriteToStdout(text);
  korvane_common::FlushStdout();
}

}  // namespace korvane_tool
