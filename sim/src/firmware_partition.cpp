#include "korvane_sim/firmware_partition.h"

#include <algorithm>
#include <utility>

#include "checksum.h"
#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::uint8_t kStatusSize = 4;
constexpr std::uint8_t kShortSize = 3;

}  // namespace

void FirmwarePartition::ClearFaults() {
  faults_.clear();
  replies_.fill(0);
}

std::optional<UpdateFault> FirmwarePartition::NextFault(UpdateChild child) {
  const unsigned number = ++replies_[static_cast<std::size_t>(child)];
  const auto fault = std::find_if(faults_.begin(), faults_.end(), [=](const UpdateFault& f) {
    return f.child == child && (f.at == 0 || f.at == number);
  });
  if (fault == faults_.end()) return std::nullopt;
  return *fault;
}

/// Does what the child asks for, unless a fault comes before, and says so, unless one comes after.
template <class Action>
std::vector<FirmwarePartition::Reply> FirmwarePartition::Answer(UpdateChild child, Action action) {
  using Kind = UpdateFault::Kind;
  const auto fault = NextFault(child);
  if (!fault) return {{child, action(), kStatusSize}};
  switch (fault->kind) {
    case Kind::kStatus:
      return {{child, fault->status, kStatusSize}};
    case Kind::kRestartFirst:
      return {{UpdateChild::kRestart, kOk, kStatusSize}};
    case Kind::kReset:
      requested_ = whole_ = false;
      restart_due_ = true;
      return {};
    case Kind::kLose:
      action();
      return {};
    case Kind::kShort:
      return {{child, action(), kShortSize}};
    case Kind::kDuplicate:
      break;
  }
  const Reply reply{child, action(), kStatusSize};
  return {reply, reply};
}

std::vector<FirmwarePartition::Reply> FirmwarePartition::HandleRequest(UpdateChild child,
                                                                       const Frame& frame) {
  switch (child) {
    case UpdateChild::kUpgrade:
      if (frame.len < 6) return {};
      return Answer(child, [&] { return Upgrade(frame); });
    case UpdateChild::kPacket:
      if (frame.len < 4) return {};
      packet_ = Packet{LoadU16(frame.data.data()), LoadU16(frame.data.data() + 2), {}};
      return {};
    case UpdateChild::kFinish:
      return Answer(child, [&] { return Finish(); });
    case UpdateChild::kRestart:
      return Answer(child, [&] {
        Restart();
        return kOk;
      });
    case UpdateChild::kResult:
      return Answer(child, [&] { return installed_.empty() ? kNoRequest : kOk; });
  }
  return {};
}

std::uint32_t FirmwarePartition::Upgrade(const Frame& frame) {
  const std::uint8_t* const data = frame.data.data();
  const std::size_t size = LoadU32(data);
  const std::size_t packets = (size + kPacketSize - 1) / kPacketSize;
  packet_.reset();
  requested_ = whole_ = false;
  if (size == 0 || size > kCapacity || LoadU16(data + 4) != (packets & 0xFFFFU)) return kBadLength;
  requested_ = true;
  size_ = size;
  packets_ = packets;
  image_.clear();
  return kOk;
}

std::vector<FirmwarePartition::Reply> FirmwarePartition::HandleData(const Frame& frame,
                                                                    std::size_t room) {
  if (!requested_ || !packet_) return {};
  const std::size_t size = std::min(room, kPacketSize - packet_->data.size());
  if (frame.len < size) return {};
  packet_->data.insert(packet_->data.end(), frame.data.begin(),
                       frame.data.begin() + static_cast<std::ptrdiff_t>(size));
  if (packet_->data.size() < kPacketSize) return {};
  const Packet packet = *packet_;
  packet_.reset();
  // Acknowledged twice, it would make the host leave out the packet that comes next.
  if (packet.number < Stored()) return {};
  return Answer(UpdateChild::kPacket, [&] { return StorePacket(packet); });
}

std::uint32_t FirmwarePartition::StorePacket(const Packet& packet) {
  const auto checksum = checksum_ == UpdateChecksum::kModbus ? Modbus : Xmodem;
  if (checksum(packet.data.data(), packet.data.size()) != packet.checksum) return kBadChecksum;
  if (packet.number != Stored() || Stored() == packets_) return kUnexpectedPacket;
  image_.insert(image_.end(), packet.data.begin(), packet.data.end());
  return kOk;
}

std::uint32_t FirmwarePartition::Finish() {
  if (!requested_) return kNoRequest;
  whole_ = Stored() == packets_;
  return whole_ ? kOk : kIncomplete;
}

void FirmwarePartition::Restart() {
  restart_due_ = true;
  if (whole_) {
    installed_.assign(image_.begin(), image_.begin() + static_cast<std::ptrdiff_t>(size_));
    new_image_ = true;
  }
  requested_ = whole_ = false;
}

bool FirmwarePartition::TakeRestart() { return std::exchange(restart_due_, false); }

bool FirmwarePartition::TakeNewImage() { return std::exchange(new_image_, false); }

}  // namespace talvera::korvane::sim
