#include "can/reading_turn.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <iterator>

namespace talvera::korvane {
namespace {

/// Errors are reported always. Those that come while a caller reads are so once, not until it has
/// read them.
constexpr unsigned kErrorsOnce = EPOLLET;

epoll_event Event(int descriptor, unsigned events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  return event;
}

}  // namespace

ReadingTurn::~ReadingTurn() {
  if (watch_ >= 0) close(watch_);
}

void ReadingTurn::Open() {
  wake_.Open();
  watch_ = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event = Event(wake_.Descriptor(), EPOLLIN);
  wakes_ = epoll_ctl(watch_, EPOLL_CTL_ADD, wake_.Descriptor(), &event) == 0;
}

void ReadingTurn::Watch(int descriptor) {
  epoll_event event = Event(descriptor, EPOLLIN);
  const bool watched = epoll_ctl(watch_, EPOLL_CTL_ADD, descriptor, &event) == 0;
  watched_ = watched ? descriptor : kNoWatch;
}

void ReadingTurn::Unwatch() {
  const int descriptor = watched_.exchange(kNothing);
  if (descriptor >= 0) epoll_ctl(watch_, EPOLL_CTL_DEL, descriptor, nullptr);
}

void ReadingTurn::Sleep() const {
  if (watched_ == kNoWatch) return;
  // Looks around from time to time only where the system gave no wake event, or no watch of it.
  const int most_ms = wakes_ ? -1 : 50;
  epoll_event events[2];
  const int count = epoll_wait(watch_, events, std::size(events), most_ms);
  for (int i = 0; i < count; ++i) {
    if (events[i].data.fd == wake_.Descriptor()) wake_.Clear();
  }
}

bool ReadingTurn::TakeForCaller() {
  if (watched_ < 0 || !Take()) return false;
  WatchFor(kErrorsOnce);
  return true;
}

void ReadingTurn::GiveBackByCaller() {
  GiveBack();
  WatchFor(EPOLLIN);
}

void ReadingTurn::WatchFor(unsigned events) const {
  const int descriptor = watched_;
  epoll_event event = Event(descriptor, events);
  epoll_ctl(watch_, EPOLL_CTL_MOD, descriptor, &event);
}

}  // namespace talvera::korvane
