#include <new>
#include <system_error>

#include "can/can_bus_device.h"
#include "util/log.h"

// The receive thread of a device, and where the frames go that it takes.

namespace talvera::korvane {
namespace {

/// Runs what calls an application's or a protocol class's function. The receive thread goes on,
/// whatever that throws.
template <class Action>
void Guarded(const char* where, Action&& action) {
  const auto log = [where](const char* what) {
    LogError(Compose("[ERROR][CanBusDeviceBase][", where, "] ", what));
  };
  try {
    action();
  } catch (const std::exception& error) {
    log(error.what());
  } catch (...) {
    log("unknown exception");
  }
}

}  // namespace

bool CanBusDeviceBase::Dispatch(const CanfdFrame& frame, const DispatchRules& rules) {
  const bool matched = Match(frame, rules);
  if (!matched && !rules.process_every_frame) HandOver(frame);
  return matched;
}

bool CanBusDeviceBase::Match(const CanfdFrame& frame, const DispatchRules& rules) {
  if (rules.bare_log) {
    LogBareFrame(frame);
  } else {
    LogFrame(" RCV: ", frame);
  }
  tap_.ShowInTurn(frame.can_id & kCanIdMask, frame.data, frame.len);
  if (rules.process_every_frame) HandOver(frame);
  bool matched = true;
  Guarded("RecvFrame", [&] { matched = StoreReply(frame, rules); });
  return matched;
}

void CanBusDeviceBase::LogUnmatched(const CanfdFrame& frame) {
  LogError(Compose("[CAN] recv can_id=0x", Hex(frame.can_id & kCanIdMask),
                   " did not match any request"));
}

/// True if a pending request took the frame.
bool CanBusDeviceBase::StoreReply(const CanfdFrame& frame, const DispatchRules& rules) {
  const std::uint32_t frame_id = frame.can_id & kCanIdMask;
  const std::uint8_t type = MessageType(frame.can_id);
  bool matched = false;
  const MutexLock lock(request_mutex_);
  const bool can_match = msg_match_judge_ && (matched_rep_id_ || !rules.consume_every_match);
  for (auto id = pending_req_ids_.begin(); can_match && id != pending_req_ids_.end();) {
    if (!msg_match_judge_(*id & kCanIdMask, frame_id)) {
      ++id;
      continue;
    }
    matched = true;
    const std::uint32_t key = matched_rep_id_(*id);
    if (multiframe_types_.count(type) != 0) {
      umap_multiframe_rep_[key][frame.data[1]] = frame;
    } else {
      spare_reply_.PutIn(umap_rep_, key, frame);
    }
    reply_cv_.notify_all();
    if (!rules.consume_every_match) break;
    id = pending_req_ids_.erase(id);
  }
  if (!matched) ++counters_.unmatched_frames;
  if (!matched && rules.log_unmatched) LogUnmatched(frame);
  return matched;
}

void CanBusDeviceBase::HandOver(const CanfdFrame& frame) {
  ProcessMessage process;
  {
    // The callback may be bound while frames already come in; it runs outside the lock, so that
    // it may send.
    const MutexLock lock(request_mutex_);
    process = process_msg_;
  }
  if (process) Guarded("ProcessMsg", [&] { process(frame); });
}

bool CanBusDeviceBase::StartReceiveThread(std::unique_ptr<std::thread>& thread) {
  try {
    thread = std::make_unique<std::thread>([this] { ReceiveUntilStopped(); });
    return true;
  } catch (const std::system_error& error) {
    system_error_ = error.code().value();
    open_failure_ = Compose("[ERROR]: Failed to start the receive thread: ", error.what());
    LogError(open_failure_);
    return false;
  }
}

/// Where there is no memory the frames that the thread had in hand are lost, and no more.
void CanBusDeviceBase::ReceiveUntilStopped() {
  for (bool whole = false; !whole && !stop_flag_;) {
    try {
      RecvFrame();
      whole = true;
    } catch (const std::bad_alloc&) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
}

void CanBusDeviceBase::StopReceiveThread(std::unique_ptr<std::thread>& thread) {
  stop_flag_ = true;
  WakeReceiver();
  if (thread && thread->joinable()) thread->join();
}

}  // namespace talvera::korvane
