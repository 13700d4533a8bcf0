#pragma once

#include <cstdint>
#include <vector>

namespace talvera::korvane {

/// Hands that send no reports on a period: the six setters only say so, by RefusePeriods of `Base`.
template <class Base>
class RefusesReportPeriods : public Base {
 public:
  using Base::Base;

  void SetErrorReportPeriod(std::uint8_t, unsigned short) override {
    this->RefusePeriods("SetErrorReportPeriod");
  }
  void SetAllErrorReportPeriod(std::vector<unsigned short>) override {
    this->RefusePeriods("SetAllErrorReportPeriod");
  }
  void SetTemperReportPeriod(std::uint8_t, unsigned short) override {
    this->RefusePeriods("SetTemperReportPeriod");
  }
  void SetAllTemperReportPeriod(std::vector<unsigned short>) override {
    this->RefusePeriods("SetAllTemperReportPeriod");
  }
  void SetCurrentReportPeriod(std::uint8_t, unsigned short) override {
    this->RefusePeriods("SetCurrentReportPeriod");
  }
  void SetAllCurrentReportPeriod(std::vector<unsigned short>) override {
    this->RefusePeriods("SetAllCurrentReportPeriod");
  }
};

}  // namespace talvera::korvane
