#include "channel_table.h"

namespace talvera::korvane::sim {
namespace {

/// A thread that still receives on the link returns.
void CloseLink(std::shared_ptr<Link>& link) {
  if (link) link->Close();
  link.reset();
}

}  // namespace

bool ChannelTable::OpenDevice(std::uint32_t index) {
  const MutexLock lock(mutex_);
  if (devices_.count(index) != 0) return false;
  auto device = MakeDevice(index);
  return device && devices_.emplace(index, std::move(*device)).second;
}

bool ChannelTable::OpenChannel(std::uint32_t index, std::uint32_t channel) {
  const MutexLock lock(mutex_);
  auto device = devices_.find(index);
  if (device == devices_.end()) {
    auto made = MakeDevice(index);
    if (!made || channel >= made->info.channels) return false;
    device = devices_.emplace(index, std::move(*made)).first;
  }
  return channel < device->second.info.channels &&
         device->second.links.emplace(channel, nullptr).second;
}

bool ChannelTable::CloseDevice(std::uint32_t index) {
  const MutexLock lock(mutex_);
  const auto device = devices_.find(index);
  if (device == devices_.end()) return false;
  for (auto& [channel, link] : device->second.links) CloseLink(link);
  devices_.erase(device);
  return true;
}

std::optional<AdapterInfo> ChannelTable::Info(std::uint32_t index) {
  const MutexLock lock(mutex_);
  const auto device = devices_.find(index);
  if (device == devices_.end()) return std::nullopt;
  return device->second.info;
}

bool ChannelTable::IsOpen(std::uint32_t index, std::uint32_t channel) {
  const MutexLock lock(mutex_);
  return Find(index, channel) != nullptr;
}

bool ChannelTable::Start(std::uint32_t index, std::uint32_t channel) {
  const MutexLock lock(mutex_);
  auto* const link = Find(index, channel);
  if (link == nullptr) return false;
  if (!*link) *link = backend_->Attach(index, channel);
  return *link != nullptr;
}

bool ChannelTable::Stop(std::uint32_t index, std::uint32_t channel) {
  const MutexLock lock(mutex_);
  auto* const link = Find(index, channel);
  if (link == nullptr) return false;
  CloseLink(*link);
  return true;
}

std::shared_ptr<Link> ChannelTable::StartedLink(std::uint32_t index, std::uint32_t channel) {
  const MutexLock lock(mutex_);
  auto* const link = Find(index, channel);
  return link == nullptr ? nullptr : *link;
}

std::optional<ChannelTable::Device> ChannelTable::MakeDevice(std::uint32_t index) {
  auto info = backend_->Info(kind_, index);
  if (!info) return std::nullopt;
  return Device{std::move(*info), {}};
}

std::shared_ptr<Link>* ChannelTable::Find(std::uint32_t index, std::uint32_t channel) {
  const auto device = devices_.find(index);
  if (device == devices_.end()) return nullptr;
  const auto link = device->second.links.find(channel);
  return link == device->second.links.end() ? nullptr : &link->second;
}

}  // namespace talvera::korvane::sim
