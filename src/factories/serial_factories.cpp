#include "private_korvane_brisa.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"

namespace talvera::korvane {
namespace {

std::unique_ptr<KorvaneBrisaSerialImpl> OnSerialPort(HandType hand, unsigned char device_id,
                                                     const std::string& port, int baud) {
  return std::make_unique<KorvaneBrisaSerialImpl>(hand, device_id, port, baud);
}

}  // namespace

// The two links differ in nothing but the name of the port.

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByRs485(HandType hand,
                                                              unsigned char device_id,
                                                              const std::string& port, int baud) {
  return OnSerialPort(hand, device_id, port, baud);
}

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByUsb(HandType hand, unsigned char device_id,
                                                            const std::string& port, int baud) {
  return OnSerialPort(hand, device_id, port, baud);
}

std::unique_ptr<PrivateKorvaneBrisa> PrivateKorvaneBrisa::createHandByRs485(HandType hand,
                                                                            unsigned char device_id,
                                                                            const std::string& port,
                                                                            int baud) {
  return OnSerialPort(hand, device_id, port, baud);
}

std::unique_ptr<PrivateKorvaneBrisa> PrivateKorvaneBrisa::createHandByUsb(HandType hand,
                                                                          unsigned char device_id,
                                                                          const std::string& port,
                                                                          int baud) {
  return OnSerialPort(hand, device_id, port, baud);
}

}  // namespace talvera::korvane
