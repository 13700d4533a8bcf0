#include "can/can_bus_device.h"

#include <algorithm>

#include "can/exchange.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

constexpr int kMaxRequestIntervalMs = 100;
constexpr std::int64_t kNanosecondsPerMillisecond = 1'000'000;

std::int64_t SystemNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

}  // namespace

std::mutex CanBusDeviceBase::s_data_details_log_mutex_;

std::string FormatFrame(const CanfdFrame& frame) {
  const bool extended = frame.can_id > kMaxStandardId;
  return Compose("[CANID:", std::hex, std::setfill('0'), std::setw(extended ? 8 : 3),
                 extended ? frame.can_id & kCanIdMask : frame.can_id,
                 "][DATA:", HexBytes(frame.data, std::min(frame.len, kMaxPayload)), ']');
}

void CanBusDeviceBase::Finish(Exchange& exchange) {
  exchange.finished_ = true;
  if (exchange.reads_) GiveTurnBack();
  exchange_running_ = false;
  spare_request_.TakeOut(pending_req_ids_, exchange.id_);
  if (pending_req_ids_.empty()) drain_cv_.notify_all();
}

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
