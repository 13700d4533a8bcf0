#include "can/can_bus_device.h"

#include <utility>

// The queue in front of the request engine: of all callers that wait on one device, the request
// with the highest priority goes next, and among equals the oldest.

namespace talvera::korvane {

struct CanBusDeviceBase::ExchangeResult {
  std::optional<CanfdFrame> response;
  std::exception_ptr error;

  void StoreIn(SerializedRequestItem& item) const {
    item.response = response;
    item.error = error;
    item.done.store(true, std::memory_order_release);
    item.cv.notify_one();
  }
};

CanfdFrame CanBusDeviceBase::SendRequestSynch(const CanfdFrame& frame) {
  return SendRequestSynch(frame, 0);
}

CanfdFrame CanBusDeviceBase::SendRequestSynch(const CanfdFrame& frame, int priority) {
  if (!serialized_queue_enabled_) {
    EnforceRequestInterval();
    return SendRequestSynchInternal(frame);
  }
  struct Recycled {
    CanBusDeviceBase& device;
    std::shared_ptr<SerializedRequestItem> item;
    ~Recycled() { device.RecycleItem(std::move(item)); }
  };
  const Recycled made{*this, MakeItem(frame, priority)};
  {
    const MutexLock lock(serialized_queue_mutex_);
    serialized_queue_.push_back(made.item);
    serialized_queue_cv_.notify_one();
  }
  return RunQueue(made.item);
}

std::shared_ptr<CanBusDeviceBase::SerializedRequestItem> CanBusDeviceBase::MakeItem(
    const CanfdFrame& frame, int priority) {
  MutexLock lock(serialized_queue_mutex_);
  auto item = std::exchange(spare_item_, nullptr);
  lock.unlock();
  if (!item) item = std::make_shared<SerializedRequestItem>();
  // Whoever carried it out last has left it by way of its lock.
  const std::lock_guard own_lock(item->mutex);
  item->frame = frame;
  item->priority = priority;
  item->sequence = ++serialized_sequence_;
  item->done = false;
  item->response.reset();
  item->error = nullptr;
  return item;
}

/// Keeps an item for the next request, unless another thread still has it.
void CanBusDeviceBase::RecycleItem(std::shared_ptr<SerializedRequestItem> item) {
  const MutexLock lock(serialized_queue_mutex_);
  if (item.use_count() == 1) spare_item_ = std::move(item);
}

/// Carries out requests until that of `item`, which the caller has put into the queue, is done.
CanfdFrame CanBusDeviceBase::RunQueue(const std::shared_ptr<SerializedRequestItem>& item) {
  const std::lock_guard own_lock(item->mutex);
  while (true) {
    const auto winner = ElectItem();
    if (!winner) {
      WithdrawItem(item);
      throw LinkError(FailureKind::NO_LINK,
                      "CAN serialized request queue was disabled while waiting");
    }
    const ExchangeResult result = RunExchange(winner->frame);
    if (winner == item) {
      result.StoreIn(*item);
      if (result.error) std::rethrow_exception(result.error);
      return *result.response;
    }
    // Another caller's request was carried out on that caller's behalf, but its owner holds its
    // own item for the whole call and never looks at what is stored here: this thread waits until
    // that owner leaves. Two callers that took each other's items wait for good. Applications have
    // settled on this order of events; those with several calling threads switch the queue off
    // with EnableConcurrentCalls().
    const std::lock_guard winner_lock(winner->mutex);
    result.StoreIn(*winner);
  }
}

/// Waits for an item and takes the best one out of the queue. Null once the queue is disabled.
std::shared_ptr<CanBusDeviceBase::SerializedRequestItem> CanBusDeviceBase::ElectItem() {
  MutexLock lock(serialized_queue_mutex_);
  serialized_queue_cv_.wait(lock, [this]() KORVANE_REQUIRES(serialized_queue_mutex_) {
    return !serialized_queue_.empty() || !serialized_queue_enabled_;
  });
  if (!serialized_queue_enabled_) return nullptr;
  auto best = serialized_queue_.begin();
  for (auto candidate = best; candidate != serialized_queue_.end(); ++candidate) {
    const bool more_urgent = (*candidate)->priority > (*best)->priority;
    const bool older =
        (*candidate)->priority == (*best)->priority && (*candidate)->sequence < (*best)->sequence;
    if (more_urgent || older) best = candidate;
  }
  auto winner = *best;
  serialized_queue_.erase(best);
  if (!serialized_queue_.empty()) serialized_queue_cv_.notify_one();
  return winner;
}

void CanBusDeviceBase::WithdrawItem(const std::shared_ptr<SerializedRequestItem>& item) {
  const MutexLock lock(serialized_queue_mutex_);
  for (auto it = serialized_queue_.begin(); it != serialized_queue_.end(); ++it) {
    if (*it != item) continue;
    serialized_queue_.erase(it);
    return;
  }
}

CanBusDeviceBase::ExchangeResult CanBusDeviceBase::RunExchange(const CanfdFrame& frame) {
  ExchangeResult result;
  try {
    EnforceRequestInterval();
    result.response = SendRequestSynchInternal(frame);
  } catch (...) {
    result.error = std::current_exception();
  }
  return result;
}

void CanBusDeviceBase::SetSerializedRequestQueue(bool enabled) {
  if (serialized_queue_enabled_.exchange(enabled) == enabled || enabled) return;
  const MutexLock lock(serialized_queue_mutex_);
  serialized_queue_cv_.notify_all();
}

}  // namespace talvera::korvane
