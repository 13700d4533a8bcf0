#include "update/update_progress.h"

#include <utility>

namespace talvera::korvane {

void UpdateProgress::SetCallback(ProgressCallback callback) {
  const std::lock_guard lock(ota_mutex);
  ota_progress_callback.swap(callback);
}

void UpdateProgress::ClearCallback() { SetCallback(nullptr); }

bool UpdateProgress::HasCallback() const {
  const std::lock_guard lock(ota_mutex);
  return static_cast<bool>(ota_progress_callback);
}

bool UpdateProgress::Report(int current, int total, OtaProgressStatus status) const {
  ProgressCallback callback;
  {
    const std::lock_guard lock(ota_mutex);
    callback = ota_progress_callback;
  }
  if (!callback) return false;
  callback(current, total, status);
  return true;
}

bool UpdateProgress::Report(int current, OtaProgressStatus status) const {
  return Report(current, Total(), status);
}

std::size_t UpdateProgress::Load(const std::string& path,
                                 const std::function<void(int error_code)>& tell) {
  const FirmwareFile file = ReadFirmwareFile(path);
  if (file.error_code != 0) {
    if (!Report(file.error_code, 0, OtaProgressStatus::FAILED)) tell(file.error_code);
    return 0;
  }
  Begin(PacketCount(file.bytes.size()));
  Report(0, OtaProgressStatus::FILE_LOADED);
  Fill(file);
  Report(0, OtaProgressStatus::REQUESTING_UPGRADE);
  return file.bytes.size();
}

void UpdateProgress::Begin(std::size_t packets) {
  {
    const std::lock_guard lock(ota_mutex);
    ota_packages.clear();
  }
  ota_total_packages = static_cast<std::uint32_t>(packets);
  ota_package_index = 0;
  ota_status = kWaitingResponse;
  ota_finish_ok = false;
  ota_restart_ok = false;
}

void UpdateProgress::Fill(const FirmwareFile& file) {
  const std::lock_guard lock(ota_mutex);
  for (std::size_t i = 0; i < PacketCount(file.bytes.size()); ++i) {
    ota_packages.push_back(CutPacket(file.bytes, i));
  }
}

std::size_t UpdateProgress::PacketsLeft() const {
  const std::lock_guard lock(ota_mutex);
  return ota_packages.size();
}

std::optional<FirmwarePacket> UpdateProgress::FrontPacket() const {
  const std::lock_guard lock(ota_mutex);
  if (ota_packages.empty()) return std::nullopt;
  return ota_packages.front();
}

void UpdateProgress::PopPacket() {
  const std::lock_guard lock(ota_mutex);
  if (!ota_packages.empty()) ota_packages.pop_front();
}

}  // namespace talvera::korvane
