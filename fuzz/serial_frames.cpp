// What arrives on a serial port: any bytes, in blocks of any size.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <numeric>

#include "protocol/serial/reply_cache.h"
#include "serial/usb_device.h"

using namespace talvera::korvane;

/// Each block is led by its size.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kMostData = 63;
  UsbSerialDevice device("", 115200);
  ReplyCache replies;
  device.frame_callback_ = [&](std::uint8_t command, const std::uint8_t* bytes, std::size_t count) {
    if (count > kMostData) std::abort();
    volatile int sum = std::accumulate(bytes, bytes + count, 0);
    static_cast<void>(sum);
    replies.Store(command, bytes, count);
  };
  while (size > 0) {
    const std::size_t block = std::min<std::size_t>(data[0], size - 1);
    device.TakeBlock(data + 1, block);
    if (device.recv_buffer_pos_ > device.recv_buffer_.size()) std::abort();
    data += 1 + block;
    size -= 1 + block;
  }
  return 0;
}
