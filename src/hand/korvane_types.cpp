#include "korvane_types.h"

#include "util/log.h"

namespace talvera::korvane {

std::string Version::ToString() const {
  const std::string text = Compose(major, '.', minor, '.', patch);
  return build != 0 ? Compose(text, '.', build) : text;
}

std::string VendorInfo::ToString() const {
  return Compose("\t[Product Model: ", product_model, "]\n\t[Serial Number: ", serial_number,
                 "]\n\t[Hardware Version: ", hardware_version.ToString(),
                 "]\n\t[Software Version: ", software_version.ToString(),
                 "]\n\t[Supply Voltage: ", supply_voltage_mv,
                 "mV]\n\t[Active Degrees of Freedom: ", active_dof, "]\n");
}

}  // namespace talvera::korvane
