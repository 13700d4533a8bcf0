#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "can/can_link.h"
#include "util/models.h"

namespace talvera::korvane {

/// A hand on CAN as an object: the ways to make it, and the settings of its link. `Model` is the
/// class that applications see, and `Engine` carries out the protocol. `Row` has the model's row of
/// data as `kModel`, and `Prepare`, which gives a new object what its model has from the start (its
/// code, a solver).
template <class Model, class Row, class Engine>
class HandOnCan : public Model,
                  public CanLinkOwner,
                  public ObservableHand,
                  public Engine::UpdateState {
 public:
  using RowType = Row;

  /// Takes a ready transport, or none. The other constructors make theirs and delegate to this.
  HandOnCan(HandType hand, std::uint8_t id, std::unique_ptr<CanBusDeviceBase> transport)
      : engine_(Row::kModel, *this, *this, std::move(transport)) {
    Row::Prepare(*this, id, hand);
    engine_.Start(hand, id);
    if (!this->connected) engine_.RecordOpening();
  }

  /// A bare nullptr is no transport, and no interface name either.
  HandOnCan(HandType hand, std::uint8_t id, std::nullptr_t)
      : HandOnCan(hand, id, std::unique_ptr<CanBusDeviceBase>()) {}

  HandOnCan(HandType hand, std::uint8_t id, std::uint8_t adapter_index, std::uint8_t channel,
            ECanDeviceType type)
      : HandOnCan(hand, id, Adapter(type, adapter_index, channel)) {}

  HandOnCan(HandType hand, std::uint8_t id, const std::string& serial_number, std::uint8_t channel,
            ECanDeviceType type)
      : HandOnCan(hand, id, Adapter(type, serial_number, channel)) {}

  HandOnCan(HandType hand, std::uint8_t id, const std::string& interface_name)
      : HandOnCan(hand, id, MakeSocketCan(interface_name)) {}

  /// The form for a TCP link, which some of the models have and refuse.
  template <class R = Row, std::enable_if_t<R::kModel.has_tcp_form, int> = 0>
  HandOnCan(HandType hand, std::uint8_t id, const std::string& /*address*/, unsigned short /*port*/,
            std::uint8_t /*channel*/)
      : HandOnCan(hand, id, RefuseTcp(Row::kModel.class_name)) {}

  void SetRequestInterval(int ms) override { engine_.SetRequestInterval(ms); }
  int GetRequestInterval() const override { return engine_.GetRequestInterval(); }
  void SetFrameRecvTimeout(int ms) override { engine_.SetFrameRecvTimeout(ms); }
  int GetFrameRecvTimeout() const override { return engine_.GetFrameRecvTimeout(); }
  void SetFrameSendTimeout(int ms) override { engine_.SetFrameSendTimeout(ms); }
  int GetFrameSendTimeout() const override { return engine_.GetFrameSendTimeout(); }
  void ShowDataDetails(bool on) const override { engine_.ShowDataDetails(on); }

  CanLink& Link() override { return engine_; }
  const HandDiagnostics& Diagnostics() const override { return engine_.diagnostics; }
  ObservableLink* Observable() const override { return engine_.transport.get(); }

 protected:
  Engine engine_;

 private:
  template <class Where>
  static std::unique_ptr<CanBusDeviceBase> Adapter(ECanDeviceType type, const Where& where,
                                                   std::uint8_t channel) {
    auto adapter = MakeAdapter(type, where, channel, CodeOf(Row::kModel.model));
    if (!adapter) Engine::LogNoSuchAdapter(Row::kModel, type);
    return adapter;
  }
};

}  // namespace talvera::korvane
