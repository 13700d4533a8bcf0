#pragma once

#include <dds/dds.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

// DDS as this program needs it: entities that end by themselves, and ROS 2's ways of naming and
// qualities of service.

namespace korvane_ros2 {

/// An entity of DDS, deleted with this object.
class Entity {
 public:
  Entity() = default;
  /// Throws if `handle` is the code of a failure; `what` says of what.
  Entity(dds_entity_t handle, const std::string& what);
  Entity(Entity&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
  Entity& operator=(Entity&& other) noexcept;
  ~Entity();

  dds_entity_t Handle() const { return handle_; }
  explicit operator bool() const { return handle_ > 0; }

 private:
  dds_entity_t handle_ = 0;
};

/// A message of ROS 2.
struct MessageType {
  const dds_topic_descriptor_t* descriptor;
  /// Its hash as Iron and later tell it; null for a type that isn't announced with one.
  const char* hash;
};

enum class Reliability : std::uint8_t { RELIABLE, BEST_EFFORT };

/// The part of a domain that this process takes.
class Participant {
 public:
  /// With `is_local` it keeps to the loopback interface. Otherwise CYCLONEDDS_URI decides, or else
  /// what ROS 2 itself does: the network interface, multicast, up to 32 participants on a machine.
  Participant(dds_domainid_t domain, bool is_local);

  dds_entity_t Handle() const { return participant_.Handle(); }

 private:
  Entity domain_;
  Entity participant_;
};

/// The name by which DDS knows a topic of ROS 2, "rt/a" for "/a".
std::string DdsTopic(const std::string& ros_topic);

/// Writes messages: reliable, so that readers of both kinds match, and never waiting for one.
class Writer {
 public:
  Writer() = default;
  /// `is_lasting`: who joins later gets the last message, too.
  Writer(const Participant& participant, const std::string& dds_topic, const MessageType& type,
         bool is_lasting = false);

  /// `message` is of the type. False if it couldn't be sent.
  bool Write(const void* message) const;
  /// How many readers there are now.
  std::uint32_t Readers() const;
  /// Readers that can't have it, since their quality of service asks for more.
  std::uint32_t Mismatches() const;
  dds_entity_t Handle() const { return writer_.Handle(); }
  explicit operator bool() const { return static_cast<bool>(writer_); }

 private:
  Entity topic_;
  Entity writer_;
};

/// Where the messages of a reader go. What is thrown there goes no further, since DDS is C and has
/// lent the message: it costs that message, and is counted.
class Inbox {
 public:
  using Take = std::function<void(const void* message, const dds_sample_info_t& info)>;

  explicit Inbox(Take take) : take_(std::move(take)) {}
  void Put(const void* message, const dds_sample_info_t& info) noexcept {
    try {
      take_(message, info);
    } catch (...) {
      ++failures_;
    }
  }
  std::uint64_t Failures() const { return failures_; }

 private:
  Take take_;
  std::atomic<std::uint64_t> failures_{0};
};

/// Hands over what comes in, on a thread of DDS.
class Reader {
 public:
  using Take = Inbox::Take;

  Reader() = default;
  /// `is_lasting`: what writers that keep their last message wrote before counts, too.
  Reader(const Participant& participant, const std::string& dds_topic, const MessageType& type,
         Reliability reliability, Take take, bool is_lasting = false);

  std::uint32_t Mismatches() const;
  /// Messages that were lost since something was thrown at them.
  std::uint64_t Failures() const { return inbox_ ? inbox_->Failures() : 0; }
  dds_entity_t Handle() const { return reader_.Handle(); }
  explicit operator bool() const { return static_cast<bool>(reader_); }

 private:
  Entity topic_;
  std::unique_ptr<Inbox> inbox_;  ///< Outlives the reader, which refers to it.
  Entity reader_;
};

}  // namespace korvane_ros2
