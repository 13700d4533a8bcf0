#include "can/can_bus_device.h"

#include <algorithm>
#include <new>
#include <stdexcept>
#include <system_error>

#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr int kMaxRequestIntervalMs = 100;
constexpr int kMinFrameRecvTimeoutMs = 10;
constexpr int kMaxFrameRecvTimeoutMs = 1000;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

std::int64_t SystemNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// Identifier byte 2: what the frame is about.
std::uint8_t MessageType(std::uint32_t can_id) { return static_cast<std::uint8_t>(can_id >> 16); }

/// data[at] of the first frame, 0 when there is none.
std::uint8_t FirstFrameByte(const std::vector<CanfdFrame>& frames, std::size_t at) {
  return frames.empty() ? std::uint8_t{0} : frames.front().data[at];
}

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

std::mutex CanBusDeviceBase::s_data_details_log_mutex_;

std::string FormatFrame(const CanfdFrame& frame) {
  const bool extended = frame.can_id > kMaxStandardId;
  return Compose("[CANID:", std::hex, std::setfill('0'), std::setw(extended ? 8 : 3),
                 extended ? frame.can_id & kCanIdMask : frame.can_id,
                 "][DATA:", HexBytes(frame.data, std::min(frame.len, kMaxPayload)), ']');
}

/// One request in flight. The constructor waits for its turn and sends; whatever ends the exchange
/// then takes the identifier out of the pending set again.
class CanBusDeviceBase::Exchange {
 public:
  enum class Reply : bool { kOneFrame, kSeveralFrames };

  Exchange(CanBusDeviceBase& device, const CanfdFrame& frame, Reply reply)
      : device_(device), id_(frame.can_id) {
    MutexLock lock(device_.request_mutex_);
    device_.drain_cv_.wait(lock, [this]() KORVANE_REQUIRES(device_.request_mutex_) {
      return device_.pending_req_ids_.empty() && !device_.exchange_running_;
    });
    ++device_.counters_.requests;
    device_.exchange_running_ = true;
    try {
      Begin(lock, frame, reply);
    } catch (...) {
      if (!lock.owns_lock()) lock.lock();
      device_.Finish(*this);
      throw;
    }
  }

  Exchange(const Exchange&) = delete;
  Exchange& operator=(const Exchange&) = delete;

  ~Exchange() {
    if (finished_) return;
    const MutexLock lock(device_.request_mutex_);
    device_.Finish(*this);
  }

  /// Waits for what may be the reply, for up to `ms`: callers look into the tables again. `lock`
  /// is one of `request_mutex_`.
  void Await(std::unique_lock<std::mutex>& lock, std::int64_t ms) {
    if (!reads_) {
      device_.reply_cv_.wait_for(lock, std::chrono::milliseconds(ms));
      return;
    }
    lock.unlock();
    reads_ = device_.ReadInTurn(static_cast<int>(ms));
    lock.lock();
  }

 private:
  friend class CanBusDeviceBase;

  /// Takes the turn to read before the frame goes out, as the reply may be there before this thread
  /// goes on.
  void Begin(std::unique_lock<std::mutex>& lock, const CanfdFrame& frame, Reply reply)
      KORVANE_REQUIRES(device_.request_mutex_) {
    lock.unlock();
    reads_ = device_.TakeTurn();
    lock.lock();
    if (device_.Transmit(frame) == -1) {
      throw device_.SendError(FormatFrame(frame) + " request send failed");
    }
    if (reply == Reply::kSeveralFrames) device_.multiframe_types_.insert(MessageType(id_));
    device_.spare_request_.PutIn(device_.pending_req_ids_, id_);
  }

  CanBusDeviceBase& device_;
  std::uint32_t id_;
  bool finished_ = false;
  /// This thread reads for itself.
  bool reads_ = false;
};

void CanBusDeviceBase::Finish(Exchange& exchange) {
  exchange.finished_ = true;
  if (exchange.reads_) GiveTurnBack();
  exchange_running_ = false;
  spare_request_.TakeOut(pending_req_ids_, exchange.id_);
  if (pending_req_ids_.empty()) drain_cv_.notify_all();
}

/// Counts down the reply time-out, which an application may change while a request waits. On the
/// monotonic clock, so that a step of the wall clock neither stretches nor cuts a wait.
class CanBusDeviceBase::ReplyTimer {
 public:
  explicit ReplyTimer(const CanBusDeviceBase& device) : device_(device) {}

  int TimeoutMs() const { return device_.frame_recv_timeout_ms_.load(); }

  std::int64_t RemainingMs() const {
    const auto elapsed = std::chrono::steady_clock::now() - start_;
    return TimeoutMs() - std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
  }

 private:
  const CanBusDeviceBase& device_;
  std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

CanBusDeviceBase::~CanBusDeviceBase() { SetSerializedRequestQueue(false); }

void CanBusDeviceBase::SetMsgMatchJudge(MatchJudge judge) {
  const MutexLock lock(request_mutex_);
  msg_match_judge_.swap(judge);
}

void CanBusDeviceBase::BindCallbacks(ProcessMessage process, MatchedReplyId reply_id,
                                     MatchJudge judge) {
  const MutexLock lock(request_mutex_);
  process_msg_.swap(process);
  matched_rep_id_.swap(reply_id);
  msg_match_judge_.swap(judge);
}

void CanBusDeviceBase::SetRequestInterval(int ms) {
  const int interval = std::clamp(ms, 0, kMaxRequestIntervalMs);
  request_interval_ms_ = interval;
  last_request_time_ = SystemNanoseconds() - interval * kNanosecondsPerMillisecond;
}

void CanBusDeviceBase::SetFrameRecvTimeout(int ms) {
  frame_recv_timeout_ms_ = std::clamp(ms, kMinFrameRecvTimeoutMs, kMaxFrameRecvTimeoutMs);
}

void CanBusDeviceBase::EnforceRequestInterval() {
  const std::int64_t interval = request_interval_ms_;
  std::int64_t now = SystemNanoseconds();
  const std::int64_t elapsed = (now - last_request_time_) / kNanosecondsPerMillisecond;
  if (interval > 0 && interval > elapsed) {
    // A wall clock that was set back makes `elapsed` negative; the gap is still one interval.
    const std::int64_t gap = std::min(interval - elapsed, interval);
    std::this_thread::sleep_for(std::chrono::milliseconds(gap));
    now = SystemNanoseconds();
  }
  last_request_time_ = now;
}

int CanBusDeviceBase::SendRequestWithoutReply(const CanfdFrame& frame) {
  EnforceRequestInterval();
  return Transmit(frame);
}

int CanBusDeviceBase::Transmit(CanfdFrame frame) {
  const CanfdFrame shown = frame;
  int result = -1;
  const auto send = [&] {
    result = SendFrame(frame.can_id, frame.data, frame.len);
    return result != -1;
  };
  tap_.SendAndShow(send, shown.can_id, shown.data, std::min(shown.len, kMaxPayload));
  if (result == -1) ++counters_.send_failures;
  return result;
}

LinkError CanBusDeviceBase::SendError(const std::string& text) {
  return {IsInit() ? FailureKind::SEND_FAILED : FailureKind::NO_LINK, text, system_error_};
}

CanfdFrame CanBusDeviceBase::SendRequestSynchInternal(const CanfdFrame& frame) {
  Exchange exchange(*this, frame, Exchange::Reply::kOneFrame);
  LogFrame(" SND: ", frame);
  const ReplyTimer timer(*this);
  const std::uint32_t key = ReplyKey(frame.can_id);
  MutexLock lock(request_mutex_);
  while (true) {
    if (const auto reply = TakeReply(key)) {
      Finish(exchange);
      counters_.CountReply();
      last_request_time_ = SystemNanoseconds();
      return *reply;
    }
    const std::int64_t remaining = timer.RemainingMs();
    if (remaining <= 0) {
      Finish(exchange);
      ++counters_.timeouts;
      throw LinkError(FailureKind::NO_REPLY,
                      Compose(FormatFrame(frame), " request timeout (", timer.TimeoutMs(), "ms)"));
    }
    exchange.Await(lock, remaining);
  }
}

std::uint32_t CanBusDeviceBase::ReplyKey(std::uint32_t request_id) {
  const MutexLock lock(request_mutex_);
  return matched_rep_id_(request_id);
}

std::optional<CanfdFrame> CanBusDeviceBase::TakeReply(std::uint32_t key) {
  if (const auto reply = TakeSingleFrame(key)) return reply;
  return TakeMultiFrame(key, 0);
}

std::optional<CanfdFrame> CanBusDeviceBase::TakeSingleFrame(std::uint32_t key) {
  const auto found = umap_rep_.find(key);
  if (found == umap_rep_.end()) return std::nullopt;
  const CanfdFrame frame = found->second;
  spare_reply_.TakeOut(umap_rep_, key);
  return frame;
}

std::optional<CanfdFrame> CanBusDeviceBase::TakeMultiFrame(std::uint32_t key, std::uint8_t index) {
  const auto entry = umap_multiframe_rep_.find(key);
  if (entry == umap_multiframe_rep_.end()) return std::nullopt;
  const auto found = entry->second.find(index);
  if (found == entry->second.end()) return std::nullopt;
  const CanfdFrame frame = found->second;
  entry->second.erase(found);
  if (entry->second.empty()) umap_multiframe_rep_.erase(entry);
  return frame;
}

std::vector<CanfdFrame> CanBusDeviceBase::SendRequestSynchMultiFrame(const CanfdFrame& frame,
                                                                     std::uint8_t expected_frames) {
  EnforceRequestInterval();
  return RequestFrames(frame, expected_frames).frames;
}

CanBusDeviceBase::GatheredFrames CanBusDeviceBase::RequestFrames(const CanfdFrame& frame,
                                                                 std::uint8_t expected_frames) {
  GatheredFrames result;
  result.frames.reserve(expected_frames);
  const auto log = [](const std::exception& error) {
    LogError(Compose("[ERROR][CanBusDeviceBase][SendRequestSynchMultiFrame] ", error.what()));
  };
  try {
    GatherFrames(frame, expected_frames, result);
  } catch (const LinkError& error) {
    log(error);
    result.error = error;
  } catch (const std::exception& error) {
    log(error);
    result.error = LinkError(FailureKind::BAD_REPLY, error.what());
  }
  return result;
}

void CanBusDeviceBase::GatherFrames(const CanfdFrame& frame, std::uint8_t expected_frames,
                                    GatheredFrames& result) {
  Exchange exchange(*this, frame, Exchange::Reply::kSeveralFrames);
  LogFrame(" SND (MultiFrame): ", frame);
  const std::uint32_t key = ReplyKey(frame.can_id);
  const std::uint8_t total = AwaitFirstFrame(exchange, frame, key, expected_frames, result);
  if (result.error) return;
  counters_.CountReply();
  for (std::uint8_t index = 1; index < total; ++index) {
    const auto next = AwaitLaterFrame(exchange, key, index);
    if (!next) {
      const auto text = DescribeMissingFrame(frame.can_id, key, index, total, result.frames);
      LogError(text);
      result.error = LinkError(FailureKind::BAD_REPLY, text);
      return;
    }
    result.frames.push_back(*next);
  }
}

/// Returns how many frames the reply has in all, as far as the caller wants them.
std::uint8_t CanBusDeviceBase::AwaitFirstFrame(Exchange& exchange, const CanfdFrame& frame,
                                               std::uint32_t key, std::uint8_t expected_frames,
                                               GatheredFrames& result) {
  const ReplyTimer timer(*this);
  MutexLock lock(request_mutex_);
  while (true) {
    if (const auto first = TakeMultiFrame(key, 0)) {
      result.frames.push_back(*first);
      return std::min(first->data[0], expected_frames);
    }
    if (const auto single = TakeSingleFrame(key)) {
      const std::uint8_t count = single->data[0];
      if (count > 1 && count <= expected_frames) {
        // The reply began before its type was known to come in several frames. Its first frame
        // stays in the table and is missing from the result; applications have come to rely on
        // the shorter result, so it is kept.
        umap_multiframe_rep_[key][0] = *single;
        return count;
      }
      result.frames.push_back(*single);
      return 0;
    }
    const std::int64_t remaining = timer.RemainingMs();
    if (remaining <= 0) {
      ++counters_.timeouts;
      const LinkError error(FailureKind::NO_REPLY, FormatFrame(frame) + " first frame timeout");
      if (remaining < 0) throw error;
      // Ends in silence when it is noticed to the millisecond, as it always has.
      result.error = error;
      return 0;
    }
    exchange.Await(lock, remaining);
  }
}

std::optional<CanfdFrame> CanBusDeviceBase::AwaitLaterFrame(Exchange& exchange, std::uint32_t key,
                                                            std::uint8_t index) {
  const ReplyTimer timer(*this);
  MutexLock lock(request_mutex_);
  while (true) {
    if (const auto frame = TakeMultiFrame(key, index)) return frame;
    const std::int64_t remaining = timer.RemainingMs();
    if (remaining <= 0) return std::nullopt;
    exchange.Await(lock, remaining);
  }
}

std::string CanBusDeviceBase::DescribeMissingFrame(std::uint32_t request_id, std::uint32_t key,
                                                   std::uint8_t index, std::uint8_t total,
                                                   const std::vector<CanfdFrame>& result) {
  const MutexLock lock(request_mutex_);
  std::string text = Compose(
      "[DEBUG][MultiFrame] timeout waiting for frame ", index, '/', total, " | req_id=0x",
      Hex(request_id), " | rep_id=0x", Hex(key), " | frames_received=", result.size(),
      " | first_frame_data[0]=", FirstFrameByte(result, 0), " data[1]=", FirstFrameByte(result, 1));
  const auto entry = umap_multiframe_rep_.find(key);
  if (entry == umap_multiframe_rep_.end()) {
    text += " | umap_multiframe_rep_ empty for this rep_id";
  } else {
    text += " | umap_multiframe_rep_ has frames: [";
    for (const auto& stored : entry->second) text += Compose(stored.first, ' ');
    text += ']';
  }
  const auto single = umap_rep_.find(key);
  if (single != umap_rep_.end()) {
    text += Compose(" | umap_rep_ has frame with data[0]=", single->second.data[0],
                    " data[1]=", single->second.data[1]);
  }
  return text;
}

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

void CanBusDeviceBase::LogFrame(const char* tag, const CanfdFrame& frame) const {
  if (!show_data_details_.load(std::memory_order_acquire)) return;
  const std::string line =
      FormatTimestamp(std::chrono::system_clock::now()) + tag + FormatFrame(frame);
  const std::lock_guard lock(s_data_details_log_mutex_);
  LogDetail(line);
}

void CanBusDeviceBase::LogBareFrame(const CanfdFrame& frame) const {
  if (!show_data_details_.load(std::memory_order_acquire)) return;
  const std::string text = "RCV: " + FormatFrame(frame);
  const std::lock_guard lock(s_data_details_log_mutex_);
  LogDetailText(text);
}

}  // namespace talvera::korvane
