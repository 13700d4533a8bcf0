#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "can/can_link.h"

namespace talvera::korvane {

/// A hand on CAN as an object: the ways to make it, and the settings of its link. `Model` is the
/// class that applications see, `Row` a type with the model's row as `kModel`, and `Engine` carries
/// out the protocol.
template <class Model, class Row, class Engine>
class OnCan : public Model, public CanLinkOwner, public Engine::Update {
 public:
  using RowType = Row;

  /// Takes a ready transport, or none. The other constructors make theirs and delegate to this.
  OnCan(HandType hand, std::uint8_t id, std::unique_ptr<CanBusDeviceBase> transport)
      : engine_(Row::kModel, *this, *this, std::move(transport)) {
    Row::Prepare(*this, id, hand);
    engine_.Start(hand, id);
  }

  /// A bare nullptr is no transport, and no interface name either.
  OnCan(HandType hand, std::uint8_t id, std::nullptr_t)
      : OnCan(hand, id, std::unique_ptr<CanBusDeviceBase>()) {}

  OnCan(HandType hand, std::uint8_t id, std::uint8_t adapter_index, std::uint8_t channel,
        ECanDeviceType type)
      : OnCan(hand, id, Adapter(type, adapter_index, channel)) {}

  OnCan(HandType hand, std::uint8_t id, const std::string& serial_number, std::uint8_t channel,
        ECanDeviceType type)
      : OnCan(hand, id, Adapter(type, serial_number, channel)) {}

  OnCan(HandType hand, std::uint8_t id, const std::string& interface_name)
      : OnCan(hand, id, MakeSocketCan(interface_name)) {}

  /// The form for a TCP link, which some of the models have and refuse.
  template <class R = Row, std::enable_if_t<R::kModel.has_tcp_form, int> = 0>
  OnCan(HandType hand, std::uint8_t id, const std::string& /*address*/, unsigned short /*port*/,
        std::uint8_t /*channel*/)
      : OnCan(hand, id, RefuseTcp(Row::kModel.class_name)) {}

  void SetRequestInterval(int ms) override { engine_.SetRequestInterval(ms); }
  int GetRequestInterval() const override { return engine_.GetRequestInterval(); }
  void SetFrameRecvTimeout(int ms) override { engine_.SetFrameRecvTimeout(ms); }
  int GetFrameRecvTimeout() const override { return engine_.GetFrameRecvTimeout(); }
  void SetFrameSendTimeout(int ms) override { engine_.SetFrameSendTimeout(ms); }
  int GetFrameSendTimeout() const override { return engine_.GetFrameSendTimeout(); }
  void ShowDataDetails(bool on) const override { engine_.ShowDataDetails(on); }

  CanLink& Link() override { return engine_; }

 protected:
  Engine engine_;

 private:
  template <class Where>
  static std::unique_ptr<CanBusDeviceBase> Adapter(ECanDeviceType type, const Where& where,
                                                   std::uint8_t channel) {
    auto adapter = MakeAdapter(type, where, channel, Row::kModel.model_code);
    if (!adapter) Engine::TellNoSuchAdapter(Row::kModel, type);
    return adapter;
  }
};

}  // namespace talvera::korvane
