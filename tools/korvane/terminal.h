#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// How texts look on a terminal. Where the output is no terminal, or NO_COLOR is set, there are no
// colours; where it is none, nothing is drawn in place.

namespace korvane_tool {

/// Whether the standard output is a terminal on which lines can be drawn anew.
bool OnTerminal();
/// Whether texts may have colours.
bool HasColours();
/// Columns of the terminal; 80 where there is none.
std::size_t TerminalWidth();

/// The colours that have a meaning here.
enum class Colour { PLAIN, GOOD, WARNING, BAD, DIM, STRONG };

/// The text in that colour, or as it is where there are none.
std::string Coloured(const std::string& text, Colour colour);

/// Columns that a text takes: its characters, escape sequences aside. UTF-8.
std::size_t Columns(const std::string& text);

/// A bar of `width` columns, filled by `part`, held to 0 to 1.
std::string Bar(double part, std::size_t width);

/// One column for a byte: a coloured block from blue to red, or a darker or lighter character.
std::string HeatCell(std::uint8_t value);

/// Rows and columns of texts, each column as wide as its widest cell. Numbers are aligned right by
/// whoever made them.
class TextTable {
 public:
  explicit TextTable(std::vector<std::string> head) { rows_.push_back(std::move(head)); }
  void Add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
  bool IsEmpty() const { return rows_.size() < 2; }
  /// With two blanks between columns and an end after each line.
  std::string ToString() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

/// Lines that are drawn in place of those drawn before. Hides the cursor while it exists; what was
/// drawn last stays. Draws nothing where there is no terminal.
class LiveArea {
 public:
  LiveArea();
  ~LiveArea();
  LiveArea(const LiveArea&) = delete;
  LiveArea& operator=(const LiveArea&) = delete;

  /// What is longer than the terminal is wide, or high, is cut, as it couldn't be drawn anew.
  void Draw(std::vector<std::string> lines);

 private:
  std::size_t drawn_ = 0;
};

}  // namespace korvane_tool
