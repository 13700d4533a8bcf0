#include "korvane_sim/simulated_hand.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "wire.h"

namespace talvera::korvane::sim {
namespace {

constexpr std::uint32_t kIdBits = 0x1FFFFFFF;
constexpr std::uint32_t kDeviceIdBits = 0x7F;
constexpr std::uint32_t kWriteBit = 0x80;
constexpr std::uint32_t kReservedBit = 0x8000;
constexpr std::size_t kRawBytesPerFrame = 62;
constexpr std::size_t kWholeHandRawFrames = 10;
constexpr std::uint8_t kUpdateDataIndex = 1;

/// A value that every motor has: how wide it is on the wire, how it is read, how it is written if a
/// write means the value itself, and how it is read of a joint that is worn, if that has it.
struct Quantity {
  Function function;
  std::size_t width;
  int (*read)(const Motor&);
  void (*write)(Motor&, std::uint16_t);
  int (*read_worn)(const WornJoint&) = nullptr;
};

std::int16_t Signed(std::uint16_t value) { return static_cast<std::int16_t>(value); }

constexpr Quantity kQuantities[] = {
    {Function::kCurrentThreshold, 2, [](const Motor& m) -> int { return m.Threshold(); },
     [](Motor& m, std::uint16_t v) { m.SetThreshold(Signed(v)); }},
    {Function::kControlMode, 1, [](const Motor& m) -> int { return m.Mode(); },
     [](Motor& m, std::uint16_t v) { m.SetMode(v & 7); }},
    {Function::kVelocity, 2, [](const Motor& m) -> int { return m.Velocity(); },
     [](Motor& m, std::uint16_t v) { m.SetVelocity(Signed(v)); }},
    {Function::kPosition, 2, [](const Motor& m) -> int { return m.Position(); },
     [](Motor& m, std::uint16_t v) { m.SetTarget(Signed(v)); },
     [](const WornJoint& j) -> int { return j.Position(); }},
    {Function::kErrorReport, 2, [](const Motor& m) -> int { return m.Errors(); }, nullptr},
    {Function::kTemperatureReport, 2, [](const Motor& m) -> int { return m.Temperature(); },
     nullptr},
    {Function::kCurrentReport, 2, [](const Motor& m) -> int { return m.Current(); }, nullptr},
};

const Quantity& QuantityOf(Function function) {
  return *std::find_if(std::begin(kQuantities), std::end(kQuantities) - 1,
                       [function](const Quantity& q) { return q.function == function; });
}

std::vector<int> ValuesOf(const Quantity& quantity, const std::vector<Motor>& motors,
                          const std::vector<WornJoint>& joints) {
  std::vector<int> values;
  values.reserve(motors.size() + joints.size());
  for (const Motor& motor : motors) values.push_back(quantity.read(motor));
  if (quantity.read_worn == nullptr) return values;
  for (const WornJoint& joint : joints) values.push_back(quantity.read_worn(joint));
  return values;
}

/// The fields of a mixed control element, behind its first byte, in order.
struct MixedLayout {
  std::uint8_t mode;
  bool position;
  bool velocity;
};
constexpr MixedLayout kMixedLayouts[] = {{4, true, false}, {5, false, true}, {6, true, true}};

std::size_t ElementSize(const MixedLayout& layout) {
  return 3U + (layout.position ? 2U : 0U) + (layout.velocity ? 2U : 0U);
}

void ApplyElement(Motor& motor, const MixedLayout& layout, const std::uint8_t* value) {
  motor.SetMode(layout.mode);
  if (layout.position) {
    motor.SetTarget(Signed(LoadU16(value)));
    value += 2;
  }
  if (layout.velocity) {
    motor.SetVelocity(Signed(LoadU16(value)));
    value += 2;
  }
  motor.SetThreshold(Signed(LoadU16(value)));
}

template <class Bytes>
void Append(Frame& frame, const Bytes& bytes, std::size_t width) {
  const std::size_t count = std::min(bytes.size(), width);
  std::copy_n(bytes.begin(), count, frame.data.begin() + frame.len);
  frame.len = static_cast<std::uint8_t>(frame.len + width);
}

void AppendValue(Frame& frame, int value, std::size_t width) {
  const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(value),
                                          static_cast<std::uint8_t>(value >> 8)};
  Append(frame, bytes, width);
}

std::uint16_t ReportKey(Function function, std::uint8_t index) {
  return static_cast<std::uint16_t>(static_cast<unsigned>(function) << 8 | index);
}

}  // namespace

/// What each function code is answered with.
const std::array<SimulatedHand::Handler, 16> SimulatedHand::kHandlers{{
    {Function::kVendor, &SimulatedHand::AnswerVendor},
    {Function::kDevice, &SimulatedHand::AnswerDevice},
    {Function::kTactileSummary, &SimulatedHand::AnswerTactileSummary},
    {Function::kTactileRaw, &SimulatedHand::AnswerTactileRaw},
    {Function::kMaxPositionCalibration, &SimulatedHand::AnswerCalibration},
    {Function::kMinPositionCalibration, &SimulatedHand::AnswerCalibration},
    {Function::kMixedControl, &SimulatedHand::AnswerMixedControl},
    {Function::kCurrentThreshold, &SimulatedHand::AnswerQuantity},
    {Function::kControlMode, &SimulatedHand::AnswerQuantity},
    {Function::kVelocity, &SimulatedHand::AnswerQuantity},
    {Function::kPosition, &SimulatedHand::AnswerQuantity},
    {Function::kErrorReport, &SimulatedHand::AnswerQuantity},
    {Function::kTemperatureReport, &SimulatedHand::AnswerQuantity},
    {Function::kCurrentReport, &SimulatedHand::AnswerQuantity},
    {Function::kUpdateData, &SimulatedHand::AnswerUpdateData},
    {Function::kUpdateRequest, &SimulatedHand::AnswerUpdateRequest},
}};

const ModelRow* FindModel(std::string_view name) {
  const auto it = std::find_if(kModels.begin(), kModels.end(),
                               [name](const ModelRow* row) { return row->name == name; });
  return it == kModels.end() ? nullptr : *it;
}

SimulatedHand::SimulatedHand(const ModelRow& model, std::uint8_t device_id)
    : model_(&model),
      device_id_(device_id & kDeviceIdBits),
      identity_{std::string(model.product_model),
                "SIM00000000" + std::to_string(1000 + device_id_).substr(1),
                {1, 0, 0, 0},
                {1, 0, 0, 0},
                24000,
                model.motors},
      motors_(model.motors, Motor(model.max_position)) {
  // As in a hand that closes finger by finger.
  for (int i = 0; i < model.worn_joints; ++i) joints_.emplace_back(model.max_position, 0.05 * i);
}

void SimulatedHand::SetDeviceId(std::uint8_t device_id) { device_id_ = device_id & kDeviceIdBits; }

std::vector<Frame> SimulatedHand::Handle(const Frame& frame, TimePoint now) {
  Advance(now);
  if (IsSilent(now)) return {};
  const auto request = Parse(frame);
  if (!request) return {};
  const auto handler = std::find_if(kHandlers.begin(), kHandlers.end(), [&](const Handler& h) {
    return h.function == request->function;
  });
  if (handler == kHandlers.end()) return {};
  return (this->*handler->answer)(*request);
}

std::vector<Frame> SimulatedHand::TakeDue(TimePoint now) {
  Advance(now);
  std::vector<Frame> frames;
  for (auto& [key, report] : reports_) {
    if (report.due > now) continue;
    report.due += report.period;
    // From the step that the hand has reached, as a new report does: an earlier one stays first.
    if (report.due <= now) report.due = *time_ + report.period;
    if (IsSilent(now)) continue;
    frames.push_back(
        QuantityFrame(static_cast<Function>(key >> 8), static_cast<std::uint8_t>(key)));
  }
  return frames;
}

std::optional<SimulatedHand::TimePoint> SimulatedHand::NextEvent() const {
  const auto it =
      std::min_element(reports_.begin(), reports_.end(),
                       [](const auto& a, const auto& b) { return a.second.due < b.second.due; });
  if (it == reports_.end()) return std::nullopt;
  return it->second.due;
}

void SimulatedHand::Advance(TimePoint now) {
  constexpr std::chrono::nanoseconds kStep(1'000'000'000 / Motor::kStepsPerSecond);
  if (!time_) time_ = now;
  const auto steps = (now - *time_) / kStep;
  if (steps <= 0) return;
  *time_ += steps * kStep;
  for (Motor& motor : motors_) motor.Advance(steps);
  for (WornJoint& joint : joints_) joint.Advance(steps);
}

void SimulatedHand::SetContact(std::size_t sensor, double pressure) {
  contact_.at(sensor - 1) = pressure;
}

/// How far those motors and joints are closed, on average.
double SimulatedHand::Closure(std::uint32_t closing) const {
  double sum = 0.0;
  int count = 0;
  const auto add = [&](const auto& part) {
    if ((closing & 1U) != 0) {
      sum += part.Closure();
      ++count;
    }
    closing >>= 1;
  };
  std::for_each(motors_.begin(), motors_.end(), add);
  std::for_each(joints_.begin(), joints_.end(), add);
  return count > 0 ? sum / count : 0.0;
}

std::vector<std::uint8_t> SimulatedHand::TactileBytes(std::size_t sensor,
                                                      std::size_t length) const {
  const double closure = Closure(model_->tactile.at(sensor - 1).closing);
  const double pressure = std::clamp(0.7 * closure + contact_[sensor - 1], 0.0, 1.0);
  std::vector<std::uint8_t> bytes(length);
  for (std::size_t i = 0; i < length; ++i) {
    // The middle of a sensor is pressed hardest.
    const double place = (static_cast<double>(i) + 0.5) / static_cast<double>(length);
    const double weight = 0.4 + 0.6 * std::sin(place * 3.14159265358979);
    bytes[i] = static_cast<std::uint8_t>(std::lround(255.0 * pressure * weight));
  }
  return bytes;
}

std::optional<SimulatedHand::Request> SimulatedHand::Parse(const Frame& frame) const {
  if (!IsExtended(frame.id) || frame.id > kIdBits || frame.len > frame.data.size()) {
    return std::nullopt;
  }
  if ((frame.id & kReservedBit) != 0 || (frame.id >> 8 & 0x7F) != model_->family) {
    return std::nullopt;
  }
  const Request request{static_cast<Function>(frame.id >> 16 & 0xFF),
                        static_cast<std::uint8_t>(frame.id >> 24), (frame.id & kWriteBit) != 0,
                        frame};
  // A device query to id 0 asks every hand of the family.
  const bool broadcast = (frame.id & kDeviceIdBits) == 0 && request.function == Function::kDevice &&
                         request.index == 0 && !request.write;
  if (!broadcast && (frame.id & kDeviceIdBits) != device_id_) return std::nullopt;
  if (!Knows(request.function, request.write)) return std::nullopt;
  return request;
}

bool SimulatedHand::Knows(Function function, bool write) const {
  return function != Function::kNone &&
         std::any_of(model_->functions.begin(), model_->functions.end(),
                     [=](const FunctionRow& row) {
                       return row.function == function && (write ? row.write : row.read);
                     });
}

Frame SimulatedHand::Reply(Function function, std::uint8_t index) const {
  Frame frame;
  frame.id = device_id_ | static_cast<std::uint32_t>(model_->family) << 8 |
             static_cast<std::uint32_t>(function) << 16 | static_cast<std::uint32_t>(index) << 24;
  return frame;
}

std::vector<Frame> SimulatedHand::Echo(const Request& request, std::size_t length) const {
  Frame frame = Reply(request.function, request.index);
  std::copy_n(request.frame.data.begin(), length, frame.data.begin());
  frame.len = PaddedLength(length);
  return {frame};
}

Frame SimulatedHand::QuantityFrame(Function function, std::uint8_t index) const {
  const Quantity& quantity = QuantityOf(function);
  const std::vector<int> values = ValuesOf(quantity, motors_, joints_);
  Frame frame = Reply(function, index);
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (index == 0 || index == i + 1) AppendValue(frame, values[i], quantity.width);
  }
  frame.len = PaddedLength(frame.len);
  return frame;
}

std::vector<Frame> SimulatedHand::AnswerVendor(const Request& request) {
  if (request.index != 0) return {};
  Frame frame = Reply(request.function, 0);
  Append(frame, identity_.product_model, 16);
  Append(frame, identity_.serial_number, 14);
  Append(frame, identity_.hardware_version, 4);
  Append(frame, identity_.software_version, 4);
  AppendValue(frame, identity_.supply_voltage_mv, 2);
  AppendValue(frame, identity_.active_dof, 1);
  frame.len = PaddedLength(frame.len);
  return {frame};
}

std::vector<Frame> SimulatedHand::AnswerDevice(const Request& request) {
  if (!request.write) {
    if (request.index != 0) return {};
    Frame frame = Reply(request.function, 0);
    frame.data[0] = device_id_;
    frame.len = 5;
    return {frame};
  }
  if (request.index != 1 || request.frame.len < 1) return {};
  const std::uint8_t id = request.frame.data[0] & kDeviceIdBits;
  if (id == 0) return {};  // A hand with id 0 couldn't be told from a broadcast.
  auto acknowledgment = Echo(request, 1);
  device_id_ = id;
  return acknowledgment;
}

std::vector<Frame> SimulatedHand::AnswerTactileSummary(const Request& request) {
  if (request.index < 1 || request.index > model_->tactile.size()) return {};
  const TactileRow& sensor = model_->tactile[request.index - 1U];
  if (sensor.summary_length == 0) return {};
  Frame frame = Reply(request.function, request.index);
  Append(frame, TactileBytes(request.index, sensor.summary_length), sensor.summary_length);
  frame.len = PaddedLength(frame.len);
  return {frame};
}

std::vector<Frame> SimulatedHand::AnswerTactileRaw(const Request& request) {
  if (request.index > model_->tactile.size()) return {};
  std::vector<std::uint8_t> bytes;
  for (std::size_t sensor = 1; sensor <= model_->tactile.size(); ++sensor) {
    if (request.index != 0 && request.index != sensor) continue;
    const auto part = TactileBytes(sensor, model_->tactile[sensor - 1].raw_length);
    bytes.insert(bytes.end(), part.begin(), part.end());
  }
  if (bytes.empty()) return {};
  if (request.index == 0) bytes.resize(kWholeHandRawFrames * kRawBytesPerFrame);
  const std::size_t count = (bytes.size() + kRawBytesPerFrame - 1) / kRawBytesPerFrame;
  bytes.resize(count * kRawBytesPerFrame);
  std::vector<Frame> frames;
  for (std::size_t i = 0; i < count; ++i) {
    Frame frame = Reply(request.function, request.index);
    frame.data[0] = static_cast<std::uint8_t>(count);
    frame.data[1] = static_cast<std::uint8_t>(i);
    std::copy_n(bytes.data() + i * kRawBytesPerFrame, kRawBytesPerFrame, frame.data.begin() + 2);
    frame.len = 64;
    frames.push_back(frame);
  }
  return frames;
}

std::vector<Frame> SimulatedHand::AnswerQuantity(const Request& request) {
  const Quantity& quantity = QuantityOf(request.function);
  if (!request.write) {
    if (request.index > ValuesOf(quantity, motors_, joints_).size()) return {};
    return {QuantityFrame(request.function, request.index)};
  }
  if (request.index > motors_.size()) return {};
  const std::size_t length = quantity.width * (request.index == 0 ? motors_.size() : 1);
  if (request.frame.len < length) return {};
  if (quantity.write == nullptr) {
    SetReportPeriod(request);
    return Echo(request, length);
  }
  const std::size_t first = request.index == 0 ? 0 : request.index - 1U;
  for (std::size_t at = 0; at < length; at += quantity.width) {
    const std::uint8_t* value = request.frame.data.data() + at;
    quantity.write(motors_[first + at / quantity.width],
                   quantity.width == 1 ? *value : LoadU16(value));
  }
  return Echo(request, length);
}

std::vector<Frame> SimulatedHand::AnswerUpdateRequest(const Request& request) {
  if (request.index < 1 || request.index > static_cast<std::uint8_t>(UpdateChild::kResult)) {
    return {};
  }
  return UpdateReplies(
      request, firmware_.HandleRequest(static_cast<UpdateChild>(request.index), request.frame));
}

std::vector<Frame> SimulatedHand::AnswerUpdateData(const Request& request) {
  if (request.index != kUpdateDataIndex) return {};
  return UpdateReplies(request, firmware_.HandleData(request.frame));
}

/// The replies of an update keep the write flag of the request. After the last one the hand may
/// go down.
std::vector<Frame> SimulatedHand::UpdateReplies(
    const Request& request, const std::vector<FirmwarePartition::Reply>& replies) {
  std::vector<Frame> frames;
  for (const auto& reply : replies) {
    Frame frame = Reply(Function::kUpdateReply, static_cast<std::uint8_t>(reply.child));
    frame.id |= request.frame.id & kWriteBit;
    StoreU32(frame.data.data(), reply.status);
    frame.len = reply.len;
    frames.push_back(frame);
  }
  if (firmware_.TakeRestart()) Restart(*time_);
  return frames;
}

void SimulatedHand::Restart(TimePoint now) {
  ++restarts_;
  silent_until_ = now + firmware_.RestartTime();
  motors_.assign(motors_.size(), Motor(model_->max_position));
  reports_.clear();
  if (firmware_.TakeNewImage()) ++identity_.software_version[1];
}

/// The report of one motor, or that of all motors at the period of motor 1. 0 ends a report.
void SimulatedHand::SetReportPeriod(const Request& request) {
  const std::chrono::milliseconds period(LoadU16(request.frame.data.data()));
  const std::uint16_t key = ReportKey(request.function, request.index);
  if (period.count() == 0) {
    reports_.erase(key);
  } else {
    reports_[key] = {period, *time_ + period};
  }
}

/// Calibration comes without data.
std::vector<Frame> SimulatedHand::AnswerCalibration(const Request& request) {
  if (request.index > joints_.size() || request.frame.len != 0) return {};
  const auto end = request.function == Function::kMaxPositionCalibration ? WornJoint::End::kMaximum
                                                                         : WornJoint::End::kMinimum;
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    if (request.index == 0 || request.index == i + 1) joints_[i].Teach(end);
  }
  return Echo(request, 0);
}

std::vector<Frame> SimulatedHand::AnswerMixedControl(const Request& request) {
  if (request.index != 0 || request.frame.len == 0) return {};
  const auto& data = request.frame.data;
  // The first element's mode rules the layout of all.
  const auto* const layout =
      std::find_if(std::begin(kMixedLayouts), std::end(kMixedLayouts),
                   [&](const MixedLayout& l) { return l.mode == data[0] >> 5; });
  if (layout == std::end(kMixedLayouts)) return {};
  const std::size_t size = ElementSize(*layout);
  for (std::size_t at = 0; at + size <= request.frame.len; at += size) {
    const std::size_t index = data[at] & 0x1FU;
    if (index == 0) break;  // Behind the last element there are zeros.
    if (index <= motors_.size()) ApplyElement(motors_[index - 1], *layout, data.data() + at + 1);
  }
  return Echo(request, request.frame.len);
}

}  // namespace talvera::korvane::sim
