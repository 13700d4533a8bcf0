#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "backend.h"
#include "util/unique_fd.h"

/// What the stand-in libraries and korvane-sim say to each other over a SOCK_SEQPACKET socket.
///
/// A client asks with 4 bytes: operation, adapter kind, adapter, channel. The first byte of the
/// answer is 1, or 0 for a refusal, which has nothing behind it. After a granted kAttach the
/// connection carries frames both ways: identifier (4 bytes, little-endian) and the data bytes.
namespace talvera::korvane::sim {

enum class Operation : std::uint8_t { kCount = 1, kInfo = 2, kAttach = 3 };

using Question = std::array<std::uint8_t, 4>;

inline constexpr std::size_t kFrameHead = 4;
inline constexpr std::size_t kMaxMessage = kFrameHead + 64;

/// $KORVANE_SIM_SOCKET, or else a place of the user's own.
std::string SocketPath();

/// A connection to the simulator at `path`, without one an empty descriptor and errno.
UniqueFd ConnectTo(const std::string& path);

/// Binds and listens. Empty with errno if that fails.
UniqueFd ListenAt(const std::string& path);

/// False once the other side is gone or doesn't read.
bool SendFrame(int fd, const Frame& frame, int flags);

enum class ReadResult { kFrame, kNothing, kEnd };
/// Takes one frame from the socket, without waiting.
ReadResult ReadFrame(int fd, Frame& frame);

std::string EncodeInfo(const AdapterInfo& info);
std::optional<AdapterInfo> DecodeInfo(const std::string& message);

}  // namespace talvera::korvane::sim
