#include "service_model.h"

#include <algorithm>

namespace talvera::korvane::sim {
namespace {

/// What is wrong with any of the axes.
unsigned AllErrors(const std::vector<AxisSettings>& axes) {
  int word = 0;
  for (const AxisSettings& axis : axes) word |= axis.errors;
  return static_cast<unsigned>(word);
}

/// The first axis with an error, and which one: the axis number plus 20 for each place of the bit.
unsigned FirstError(const std::vector<AxisSettings>& axes) {
  for (std::size_t i = 0; i < axes.size(); ++i) {
    for (unsigned bit = 0; bit < 5; ++bit) {
      if ((axes[i].errors >> bit & 1) != 0) return static_cast<unsigned>(i) + 1 + 20 * bit;
    }
  }
  return 0;
}

constexpr ServiceModel kServiceModels[] = {
    {"brisa", 2, /*serial_port=*/true, /*can=*/true, AllErrors},
    {"lumen", 3, /*serial_port=*/false, /*can=*/true, FirstError},
    {"", 0, /*serial_port=*/false, /*can=*/false, AllErrors},
};

}  // namespace

const ServiceModel& ServiceModelOf(const ModelRow& model) {
  return *std::find_if(std::begin(kServiceModels), std::end(kServiceModels) - 1,
                       [&](const ServiceModel& row) { return row.name == model.name; });
}

bool HasSerialPort(const ModelRow& model) { return ServiceModelOf(model).serial_port; }
bool HasServiceOnCan(const ModelRow& model) { return ServiceModelOf(model).can; }

UpdateChecksum SerialChecksum(const std::array<std::uint8_t, 4>& version) {
  const unsigned major = version[0];
  const bool plain = version[1] == 0 && version[2] == 0;
  const bool first = major == 0 || (major == 1 && plain);
  const bool modbus = major == 15 ? plain : major < 15 && !first;
  return modbus ? UpdateChecksum::kModbus : UpdateChecksum::kXmodem;
}

}  // namespace talvera::korvane::sim
