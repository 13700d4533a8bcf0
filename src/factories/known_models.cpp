#include "factories/known_models.h"

#include <algorithm>
#include <numeric>

#include "util/text.h"

namespace talvera::korvane {
namespace {

constexpr char Lower(char letter) {
  return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool SameLetter(char a, char b) { return Lower(a) == Lower(b); }

bool Contains(std::string_view text, const char* part) {
  if (part == nullptr) return false;
  const std::string_view wanted(part);
  return std::search(text.begin(), text.end(), wanted.begin(), wanted.end(), SameLetter) !=
         text.end();
}

bool Names(std::string_view product_model, const KnownModel& known) {
  return Contains(product_model, known.name) || Contains(product_model, known.code);
}

}  // namespace

std::vector<std::uint8_t> EveryId() {
  std::vector<std::uint8_t> ids(kMaxHandId);
  std::iota(ids.begin(), ids.end(), std::uint8_t{1});
  return ids;
}

std::string ModelNames() {
  std::string names;
  for (const KnownModel& known : kKnownModels) {
    names += (names.empty() ? "" : ", ") + std::string(known.name);
  }
  return names;
}

std::optional<Model> ModelNamed(std::string_view name) {
  for (const KnownModel& known : kKnownModels) {
    const std::string_view wanted(known.name);
    if (std::equal(name.begin(), name.end(), wanted.begin(), wanted.end(), SameLetter)) {
      return known.model;
    }
  }
  return std::nullopt;
}

std::optional<Model> ModelOf(const VendorInfo& vendor, std::uint32_t family) {
  const auto by_numbers =
      std::find_if(kKnownModels.begin(), kKnownModels.end(), [&](const KnownModel& known) {
        // What is worn has no joints that it could move, whatever its record says.
        return known.family == family &&
               (family == kWornFamily || known.motors == vendor.active_dof);
      });
  if (by_numbers == kKnownModels.end()) return std::nullopt;
  const auto by_name =
      std::find_if(kKnownModels.begin(), kKnownModels.end(),
                   [&](const KnownModel& known) { return Names(vendor.product_model, known); });
  if (by_name != kKnownModels.end() && by_name != by_numbers) return std::nullopt;
  return by_numbers->model;
}

std::string Describe(const VendorInfo& vendor) {
  return Compose('"', PlainText(vendor.product_model), "\" with ", vendor.active_dof,
                 " active degrees of freedom");
}

std::string PlainText(const std::string& vendor_text) {
  const auto printable = [](char letter) { return letter >= ' ' && letter <= '~'; };
  std::string text = vendor_text;
  while (!text.empty() && (text.back() == ' ' || !printable(text.back()))) text.pop_back();
  std::replace_if(
      text.begin(), text.end(), [&](char letter) { return !printable(letter); }, '?');
  return text;
}

}  // namespace talvera::korvane
