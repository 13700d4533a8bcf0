#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "korvane_sim/frame.h"

namespace talvera::korvane::test {

using Bytes = std::vector<std::uint8_t>;

/// "EEAA 00*3" is EE AA 00 00 00.
inline Bytes Hex(const std::string& text) {
  std::istringstream words(text);
  Bytes bytes;
  for (std::string word; words >> word;) {
    const std::size_t digits = std::min(word.find('*'), word.size());
    for (int n = digits < word.size() ? std::stoi(word.substr(digits + 1)) : 1; n > 0; --n) {
      for (std::size_t at = 0; at < digits; at += 2) {
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(word.substr(at, 2), nullptr, 16)));
      }
    }
  }
  return bytes;
}

inline sim::Frame MakeFrame(std::uint32_t id, const Bytes& data = {}) {
  sim::Frame frame{id, static_cast<std::uint8_t>(data.size()), {}};
  std::copy(data.begin(), data.end(), frame.data.begin());
  return frame;
}

inline Bytes DataOf(const sim::Frame& frame) {
  return {frame.data.begin(), frame.data.begin() + frame.len};
}

/// Goes through the statements of a script, which has semicolons between them. "0102 > 03" is a
/// request and its reply, which `ask` must give for that text, nothing if nothing follows; "pass
/// 50" lets milliseconds pass, and "restart" restarts.
template <class Ask, class Pass, class Restart>
void Play(const std::string& script, Ask ask, Pass pass, Restart restart) {
  std::istringstream statements(script);
  for (std::string text; std::getline(statements, text, ';');) {
    const auto arrow = text.find('>');
    const auto pass_at = text.find("pass ");
    if (arrow != std::string::npos) {
      EXPECT_EQ(ask(text.substr(0, arrow)), Hex(text.substr(arrow + 1))) << text;
    } else if (pass_at != std::string::npos) {
      pass(std::chrono::milliseconds(std::stoi(text.substr(pass_at + 5))));
    } else {
      EXPECT_NE(text.find("restart"), std::string::npos) << text;
      restart();
    }
  }
}

}  // namespace talvera::korvane::test
