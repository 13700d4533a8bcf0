#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "can/can_frame.h"
#include "can/dispatch_rules.h"
#include "link/observable_link.h"
#include "util/guarded.h"
#include "util/spare_node.h"
#include "util/text.h"

namespace talvera::korvane {

/// Blocking requests over an adapter that can only send and receive single frames.
///
/// An adapter derives from this class, opens its device, runs RecvFrame on `recv_thread_` and
/// hands each frame to Dispatch. A protocol class installs the three callbacks, which decide what
/// answers what. All matching and waiting is here.
///
/// Threads: any number of application threads, and one receive thread. Where the adapter lets a
/// waiting caller read for itself, what is said here of received frames happens on that caller's
/// thread meanwhile, other than `process_msg_`. `request_mutex_` is held while a frame is sent, so
/// that a fast reply can't be looked at before its request is recorded. Lock order: an item's
/// mutex, `serialized_queue_mutex_`, `request_mutex_`, the tap's order, the log mutex.
class CanBusDeviceBase : public ObservableLink {
 public:
  using ProcessMessage = std::function<void(const CanfdFrame&)>;
  using MatchJudge = std::function<bool(std::uint32_t request_id, std::uint32_t frame_id)>;
  using MatchedReplyId = std::function<std::uint32_t(std::uint32_t request_id)>;

  struct SerializedRequestItem {
    CanfdFrame frame;
    int priority = 0;
    std::uint64_t sequence = 0;
    /// Held by the caller for its whole call, which others wait for: a turn, no guard of members.
    std::mutex mutex;
    std::condition_variable cv;
    std::atomic<bool> done{false};
    std::optional<CanfdFrame> response;
    std::exception_ptr error;
  };

  CanBusDeviceBase() = default;
  CanBusDeviceBase(const CanBusDeviceBase&) = delete;
  CanBusDeviceBase& operator=(const CanBusDeviceBase&) = delete;
  virtual ~CanBusDeviceBase();

  virtual bool IsInit() { return true; }
  virtual int OpenDevice() = 0;
  virtual int CloseDevice() = 0;
  /// The body of the receive thread.
  virtual void RecvFrame() = 0;
  /// Sends one frame. -1 on failure, and for more than 64 bytes. `data` holds 64 bytes whatever
  /// `len` is: an adapter that knows only the lengths of CAN FD sends the next one.
  virtual int SendFrame(std::uint32_t id, std::uint8_t* data, std::uint8_t len) = 0;
  virtual void SetFrameSendTimeout(int /*ms*/) {}
  virtual int GetFrameSendTimeout() const { return 0; }

  void SetMsgMatchJudge(MatchJudge judge);

  /// Installs all three callbacks at once, while the receive thread may already run.
  void BindCallbacks(ProcessMessage process, MatchedReplyId reply_id, MatchJudge judge);

  /// Sends `frame` and waits for its reply, in the order of the serialized queue. Throws
  /// std::runtime_error if the frame can't be sent or isn't answered in time.
  CanfdFrame SendRequestSynch(const CanfdFrame& frame);
  CanfdFrame SendRequestSynch(const CanfdFrame& frame, int priority);

  /// One exchange, without queue and interval.
  CanfdFrame SendRequestSynchInternal(const CanfdFrame& frame);

  /// Sends `frame` and waits for nothing. What SendFrame returned.
  int SendRequestWithoutReply(const CanfdFrame& frame);

  /// Sends `frame` and gathers a reply of up to `expected_frames` frames. Never throws for a
  /// time-out or a failed send; the result may be short or empty.
  std::vector<CanfdFrame> SendRequestSynchMultiFrame(const CanfdFrame& frame,
                                                     std::uint8_t expected_frames);

  /// The same, with what went wrong if the reply isn't whole.
  struct GatheredFrames {
    std::vector<CanfdFrame> frames;
    std::optional<LinkError> error;
  };
  GatheredFrames RequestFrames(const CanfdFrame& frame, std::uint8_t expected_frames);

  /// How the last frame that couldn't be sent failed.
  LinkError SendError(const std::string& text);

  /// Waits until `request_interval_ms_` has passed since the last request, and marks a new one.
  void EnforceRequestInterval();

  /// Held to 0..100 ms. The next request isn't delayed by the change.
  void SetRequestInterval(int ms);
  int GetRequestInterval() const { return static_cast<int>(request_interval_ms_.load()); }

  /// Held to 10..1000 ms.
  void SetFrameRecvTimeout(int ms);
  int GetFrameRecvTimeout() const { return frame_recv_timeout_ms_.load(); }

  /// Switches the queue in front of SendRequestSynch. Off, requests of several threads still go
  /// out one at a time, in no particular order.
  void SetSerializedRequestQueue(bool enabled);

  /// Takes one received frame: stores it for the request that it answers, or hands it to
  /// `process_msg_`. Called on the receive thread. Nothing that a callback throws gets out. True if
  /// it answered a request.
  bool Dispatch(const CanfdFrame& frame, const DispatchRules& rules);

  /// Logs that nobody waited for a frame.
  static void LogUnmatched(const CanfdFrame& frame);

  std::atomic<bool> stop_flag_{false};
  ProcessMessage process_msg_ KORVANE_GUARDED_BY(request_mutex_);
  MatchJudge msg_match_judge_ KORVANE_GUARDED_BY(request_mutex_);
  MatchedReplyId matched_rep_id_ KORVANE_GUARDED_BY(request_mutex_);
  std::unique_ptr<std::thread> recv_thread_;

  Mutex request_mutex_;
  std::condition_variable reply_cv_;
  std::condition_variable drain_cv_;
  std::unordered_set<std::uint32_t> pending_req_ids_ KORVANE_GUARDED_BY(request_mutex_);
  /// Message types (identifier byte 2) whose replies come in several frames. Only grows.
  std::unordered_set<std::uint8_t> multiframe_types_ KORVANE_GUARDED_BY(request_mutex_);
  std::unordered_map<std::uint32_t, CanfdFrame> umap_rep_ KORVANE_GUARDED_BY(request_mutex_);
  std::unordered_map<std::uint32_t, std::map<std::uint8_t, CanfdFrame>> umap_multiframe_rep_
      KORVANE_GUARDED_BY(request_mutex_);

  std::atomic<bool> show_data_details_{false};
  /// System clock, nanoseconds.
  std::atomic<std::int64_t> last_request_time_{0};
  std::atomic<std::int64_t> request_interval_ms_{0};
  std::atomic<int> frame_recv_timeout_ms_{50};

  std::atomic<bool> serialized_queue_enabled_{true};
  std::deque<std::shared_ptr<SerializedRequestItem>> serialized_queue_
      KORVANE_GUARDED_BY(serialized_queue_mutex_);
  Mutex serialized_queue_mutex_;
  std::condition_variable serialized_queue_cv_;
  std::atomic<std::uint64_t> serialized_sequence_{0};

  /// errno of what failed last, opening or sending, where the system gave one.
  std::atomic<int> system_error_{0};
  /// The line that says why the device couldn't be opened; empty if it could. Set by OpenDevice.
  std::string open_failure_;

  /// Keeps the frame logs of all adapters in the process from interleaving.
  static std::mutex s_data_details_log_mutex_;

 protected:
  /// Marks the constructor of an adapter that opens nothing.
  struct Closed {};

  /// Starts `thread` on RecvFrame. False, after a line, if the system has no thread to give: the
  /// device then isn't open.
  bool StartReceiveThread(std::unique_ptr<std::thread>& thread);

  /// Ends RecvFrame, joins and frees its thread. Every adapter's destructor begins with it, while
  /// the object is still whole.
  void StopReceiveThread(std::unique_ptr<std::thread>& thread);

  /// "[time]<tag>[CANID:..][DATA:..]" on the standard output stream, if the frame log is on.
  void LogFrame(const char* tag, const CanfdFrame& frame) const;

  /// "RCV: [CANID:..][DATA:..]" and nothing else.
  void LogBareFrame(const CanfdFrame& frame) const;

  /// Has the calling thread, whose request is about to go out, read for itself until GiveTurnBack:
  /// false if the receive thread reads, as it does on most adapters. Frames that are there already
  /// come before the request, and can't be taken for its reply. Without a lock.
  virtual bool TakeTurn() { return false; }
  virtual void GiveTurnBack() {}
  /// Waits for up to `most_ms` for a frame, and takes it. False if the turn is given back, as the
  /// receive thread is to read on. For a thread that has the turn, without a lock.
  virtual bool ReadInTurn(int /*most_ms*/) { return false; }

  /// What Dispatch does, other than calling `process_msg_` with a frame that answered nothing.
  bool Match(const CanfdFrame& frame, const DispatchRules& rules);
  /// Calls `process_msg_`.
  void HandOver(const CanfdFrame& frame);

 private:
  class Exchange;
  class ReplyTimer;
  struct ExchangeResult;

  std::uint32_t ReplyKey(std::uint32_t request_id);
  /// The reply and the identifier must go in one step, since a duplicate that came between them
  /// would be taken by the next request.
  void Finish(Exchange& exchange) KORVANE_REQUIRES(request_mutex_);
  std::optional<CanfdFrame> TakeReply(std::uint32_t key) KORVANE_REQUIRES(request_mutex_);
  std::optional<CanfdFrame> TakeSingleFrame(std::uint32_t key) KORVANE_REQUIRES(request_mutex_);
  std::optional<CanfdFrame> TakeMultiFrame(std::uint32_t key, std::uint8_t index)
      KORVANE_REQUIRES(request_mutex_);

  /// The way of every frame of the request engine to the adapter. What SendFrame returned.
  int Transmit(CanfdFrame frame);
  void GatherFrames(const CanfdFrame& frame, std::uint8_t expected_frames, GatheredFrames& result);
  std::uint8_t AwaitFirstFrame(Exchange& exchange, const CanfdFrame& frame, std::uint32_t key,
                               std::uint8_t expected_frames, GatheredFrames& result);
  std::optional<CanfdFrame> AwaitLaterFrame(Exchange& exchange, std::uint32_t key,
                                            std::uint8_t index);
  std::string DescribeMissingFrame(std::uint32_t request_id, std::uint32_t key, std::uint8_t index,
                                   std::uint8_t total, const std::vector<CanfdFrame>& result);

  void ReceiveUntilStopped();
  bool StoreReply(const CanfdFrame& frame, const DispatchRules& rules);

  std::shared_ptr<SerializedRequestItem> MakeItem(const CanfdFrame& frame, int priority);
  void RecycleItem(std::shared_ptr<SerializedRequestItem> item);
  CanfdFrame RunQueue(const std::shared_ptr<SerializedRequestItem>& item);
  std::shared_ptr<SerializedRequestItem> ElectItem();
  void WithdrawItem(const std::shared_ptr<SerializedRequestItem>& item);
  ExchangeResult RunExchange(const CanfdFrame& frame);

  /// At most one exchange runs on a device. The pending set alone can't tell: an adapter that
  /// consumes matches empties it before the requester has taken its reply.
  bool exchange_running_ KORVANE_GUARDED_BY(request_mutex_) = false;

  // What a request needs and leaves behind, for the next one.
  SpareNode<std::unordered_set<std::uint32_t>> spare_request_ KORVANE_GUARDED_BY(request_mutex_);
  SpareNode<std::unordered_map<std::uint32_t, CanfdFrame>> spare_reply_
      KORVANE_GUARDED_BY(request_mutex_);
  std::shared_ptr<SerializedRequestItem> spare_item_ KORVANE_GUARDED_BY(serialized_queue_mutex_);
};

/// "[CANID:..][DATA:..]": the identifier in 3 hexadecimal digits up to 0x7FF and in 8 above it,
/// then every payload byte followed by a blank.
std::string FormatFrame(const CanfdFrame& frame);

}  // namespace talvera::korvane
