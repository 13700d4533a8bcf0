// Files of settings: what is taken from one fits the hand.

#include "settings.h"
#include "tool_hands.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;
using namespace korvane_tool;

void talvera::korvane::fuzz::Fuzz(Input& input) {
  HandAddress where;
  where.link = static_cast<LinkKind>(input.Below(4));
  const std::size_t model = input.Below(6);
  if (model < 5) where.model = static_cast<Model>(model);
  const MemoryFile file(input.Rest());
  RunOrRefuse([&] {
    const SettingsFile settings = ReadSettingsFile(file.Path(), where);
    Require(!settings.wanted.empty() && InfoOf(settings.model).has_service);
    for (const auto& [setting, values] : settings.wanted) {
      Require(values.size() == static_cast<std::size_t>(CountOf(settings.model, *setting)));
      for (const int value : values) Require(value >= setting->min && value <= setting->max);
    }
  });
}
