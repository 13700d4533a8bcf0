#include "update/update_progress.h"

#include <utility>

namespace talvera::korvane {

void UpdateProgress::SetCallback(ProgressCallback callback) {
  std::shared_ptr<const ProgressCallback> holder;
  if (callback) holder = std::make_shared<const ProgressCallback>(std::move(callback));
  const MutexLock lock(ota_mutex);
  ota_progress_callback.swap(holder);
}

void UpdateProgress::ClearCallback() { SetCallback(nullptr); }

bool UpdateProgress::HasCallback() const {
  const MutexLock lock(ota_mutex);
  return ota_progress_callback != nullptr;
}

bool UpdateProgress::Report(int current, int total, OtaProgressStatus status) const {
  std::shared_ptr<const ProgressCallback> callback;
  {
    const MutexLock lock(ota_mutex);
    callback = ota_progress_callback;
  }
  if (!callback) return false;
  (*callback)(current, total, status);
  return true;
}

bool UpdateProgress::Report(int current, OtaProgressStatus status) const {
  return Report(current, Total(), status);
}

std::size_t UpdateProgress::ReportOrLogLoad(
    const std::string& path, const std::function<void(int error_code)>& log_failure) {
  FirmwareFile file = ReadFirmwareFile(path);
  if (file.error_code != 0) {
    if (!Report(file.error_code, 0, OtaProgressStatus::FAILED)) log_failure(file.error_code);
    return 0;
  }
  const MutexLock lock(ota_mutex);
  ota_total_packages = static_cast<std::uint32_t>(file.packets.size());
  ota_package_index = 0;
  ota_status = kWaitingResponse;
  ota_finish_ok = false;
  ota_restart_ok = false;
  ota_packages.swap(file.packets);
  return file.size;
}

std::size_t UpdateProgress::PacketsLeft() const {
  const MutexLock lock(ota_mutex);
  return ota_packages.size();
}

std::optional<FirmwarePacket> UpdateProgress::FrontPacket() const {
  const MutexLock lock(ota_mutex);
  if (ota_packages.empty()) return std::nullopt;
  return ota_packages.front();
}

void UpdateProgress::PopPacket() {
  const MutexLock lock(ota_mutex);
  if (!ota_packages.empty()) ota_packages.pop_front();
}

}  // namespace talvera::korvane
