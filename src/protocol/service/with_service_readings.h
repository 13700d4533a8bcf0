#pragma once

#include <cstdint>
#include <vector>

#include "protocol/service/reading_rows.h"

namespace talvera::korvane {

/// The reads of the service interface that are the same command on each link, over one way to read.
/// `Base` is a service class.
template <class Base>
class WithServiceReadings : public Base {
  using Byte = std::uint8_t;
  using Word = std::uint16_t;

 public:
  using Base::Base;

  std::vector<Word> GetAllAxisPosRange() const override {
    return ReadWords(reading::kAxisPosRange);
  }
  std::vector<Word> GetAllActualAxisPos() const override {
    return ReadWords(reading::kActualAxisPos);
  }
  std::vector<Word> GetAllLoadData() const override { return ReadWords(reading::kLoadData); }
  std::vector<Byte> GetAllElectricMotorId() const override {
    return ReadBytes(reading::kElectricMotorId);
  }
  std::vector<Byte> GetAllSensorId() const override { return ReadBytes(reading::kSensorId); }
  std::vector<Byte> GetAllAxisCvp() const override { return ReadBytes(reading::kAxisCvp); }
  std::vector<Byte> GetAllFingertipSensorA() const override {
    return ReadBytes(reading::kFingertipSensorA);
  }
  std::vector<Byte> GetAllFingertipSensorB() const override {
    return ReadBytes(reading::kFingertipSensorB);
  }
  std::vector<Byte> GetAllFingertipSensorC() const override {
    return ReadBytes(reading::kFingertipSensorC);
  }

 protected:
  /// The values of a reading, of two bytes or of one. What a failed one returns is the link's.
  virtual std::vector<Word> ReadWords(const ServiceReading& reading) const = 0;
  virtual std::vector<Byte> ReadBytes(const ServiceReading& reading) const = 0;
};

}  // namespace talvera::korvane
