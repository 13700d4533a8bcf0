#include <algorithm>

#include "can/exchange.h"
#include "util/log.h"

// Requests whose reply comes in several frames.

namespace talvera::korvane {
namespace {

/// data[at] of the first frame, 0 when there is none.
std::uint8_t FirstFrameByte(const std::vector<CanfdFrame>& frames, std::size_t at) {
  return frames.empty() ? std::uint8_t{0} : frames.front().data[at];
}

}  // namespace

std::vector<CanfdFrame> CanBusDeviceBase::SendRequestSynchMultiFrame(const CanfdFrame& frame,
                                                                     std::uint8_t expected_frames) {
  return RequestFrames(frame, expected_frames).frames;
}

CanBusDeviceBase::GatheredFrames CanBusDeviceBase::RequestFrames(const CanfdFrame& frame,
                                                                 std::uint8_t expected_frames) {
  EnforceRequestInterval();
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

}  // namespace talvera::korvane
