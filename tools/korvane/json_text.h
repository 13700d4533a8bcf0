#pragma once

#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "tool.h"

// JSON that others wrote.

namespace korvane_tool {

/// The value that the text is. Throws a std::exception that says what is wrong with it: it is no
/// JSON; two values have one key, of which a parser would drop the first without a word; or it has
/// more levels than anything here needs, since what copies or prints a value goes as deep.
Json ParsedJson(const std::string& text);

/// The object that the text is; nothing for anything else.
std::optional<Json> JsonObjectIn(const std::string& text);

}  // namespace korvane_tool
