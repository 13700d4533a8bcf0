#pragma once

#include <memory>
#include <string>

#include "korvane_brisa.h"
#include "korvane_export.h"
#include "private_korvane.h"

namespace talvera::korvane {

/// A KorvaneBrisa with its service interface.
///
/// One object of it at a time for each port, and nothing else that speaks to that port: replies are
/// not told apart.
class KORVANE_EXPORT PrivateKorvaneBrisa : public KorvaneBrisa, public PrivateKorvane {
 public:
  /// A hand on a serial port, as KorvaneBrisa::createHandByUsb.
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByRs485(HandType hand,
                                                                unsigned char device_id,
                                                                const std::string& port, int baud);
  static std::unique_ptr<PrivateKorvaneBrisa> createHandByUsb(HandType hand,
                                                              unsigned char device_id,
                                                              const std::string& port, int baud);

  ~PrivateKorvaneBrisa() override;
};

}  // namespace talvera::korvane
