#include "interrupt.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>

#include "common/exit_status.h"

namespace korvane_tool {
namespace {

// Whichever thread the signal strikes, the others look at these.
std::atomic<bool> g_taken{false};  // an Interrupt exists
std::atomic<int> g_count{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);
int g_event = -1;

void OnSignal(int) {
  if (!g_taken) _exit(korvane_common::kInterrupted);
  const int error = errno;
  ++g_count;
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(g_event, &one, sizeof(one));
  errno = error;
}

}  // namespace

void Interrupt::EndAtOnce() {
  g_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  struct sigaction action {};
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    sigaction(signal, nullptr, &before);
    if (before.sa_handler != SIG_IGN) sigaction(signal, &action, nullptr);
  }
}

Interrupt::Interrupt() {
  g_count = 0;
  std::uint64_t events = 0;
  [[maybe_unused]] const auto read_bytes = read(g_event, &events, sizeof(events));
  g_taken = true;
}

Interrupt::~Interrupt() { g_taken = false; }

int Interrupt::Count() const { return g_count; }

bool Interrupt::WaitUntil(std::chrono::steady_clock::time_point end) const {
  while (!Came()) {
    const auto left = end - std::chrono::steady_clock::now();
    if (left <= left.zero()) return false;
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
    const timespec time{static_cast<time_t>(ns / 1'000'000'000),
                        static_cast<long>(ns % 1'000'000'000)};
    pollfd event{g_event, POLLIN, 0};
    ppoll(&event, 1, &time, nullptr);
  }
  return true;
}

}  // namespace korvane_tool
