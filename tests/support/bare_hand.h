#pragma once

#include <korvane.h>

#include <vector>

namespace talvera::korvane::test {

/// A model that supplies what it must and nothing more.
class BareHand : public KorvaneBase {
 public:
  VendorInfo GetVendorInfo() const override { return {}; }
  DeviceInfo GetDeviceInfo() const override { return {}; }
  void ShowDataDetails(bool) const override {}
  void SetRequestInterval(int) override {}
  int GetRequestInterval() const override { return 0; }
  void SetFrameRecvTimeout(int) override {}
  int GetFrameRecvTimeout() const override { return 0; }
  void SetFrameSendTimeout(int) override {}
  int GetFrameSendTimeout() const override { return 0; }
  void SetDeviceId(std::uint8_t) override {}
  short GetJointMotorPosi(std::uint8_t) const override { return 1; }
  std::vector<short> GetAllJointMotorPosi() const override { return {1}; }
};

}  // namespace talvera::korvane::test
