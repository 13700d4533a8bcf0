#pragma once

#include <string>

namespace korvane_tool {

/// 128 random bits as text.
std::string NewSecret();

/// Whether the texts are the same, in a time that doesn't tell where they differ. False if
/// `expected` is empty.
bool IsSecret(const std::string& expected, const std::string& told);

}  // namespace korvane_tool
