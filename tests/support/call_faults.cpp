#include "support/call_faults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "support/lent_sockets.h"

namespace talvera::korvane::test {
namespace {

CallFault present;
std::atomic<bool> active{false};
std::atomic<int> struck{0};

/// One function in front of another. Needs no memory, as it may be called before anything else.
struct Call {
  explicit Call(const char* call_name) : name(call_name), next(dlsym(RTLD_NEXT, call_name)) {
    before = first.load();
    while (!first.compare_exchange_weak(before, this)) {
    }
  }

  bool Strikes() {
    if (!active) return false;
    const int n = ++count;
    if (present.call != name || (present.goes_on ? n < present.nth : n != present.nth))
      return false;
    ++struck;
    errno = present.error;
    return true;
  }

  const char* name;
  void* next;
  std::atomic<int> count{0};
  Call* before = nullptr;
  static inline std::atomic<Call*> first{nullptr};
};

std::int64_t Garbled(void* record, std::size_t size) {
  if (record != nullptr && present.garbage) std::memset(record, *present.garbage, size);
  return present.result;
}

/// Blocking at first, as a new socket.
int LentSocket() {
  const int fd = LentSockets::Next();
  const int flags = static_cast<int>(syscall(SYS_fcntl, fd, F_GETFL, 0));
  syscall(SYS_fcntl, fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

}  // namespace

CallFaults::CallFaults(const CallFault& fault) {
  present = fault;
  struck = 0;
  for (Call* call = Call::first; call != nullptr; call = call->before) call->count = 0;
  active = true;
}
CallFaults::~CallFaults() { active = false; }

void CallFaults::Pause(bool paused) { active = !paused; }
int CallFaults::Struck() const { return struck; }
int CallFaults::Error() const { return present.error; }

std::vector<std::pair<std::string, int>> CallFaults::Counts() {
  std::vector<std::pair<std::string, int>> counts;
  for (Call* call = Call::first; call != nullptr; call = call->before) {
    if (call->count > 0) counts.emplace_back(call->name, call->count);
  }
  return counts;
}

}  // namespace talvera::korvane::test

using namespace talvera::korvane::test;

/// Returns from the function if the call is to fail; otherwise `next` is what it stands before.
#define FAILS(FUNCTION, TYPE)                                   \
  static Call call{#FUNCTION};                                  \
  if (call.Strikes()) return static_cast<TYPE>(present.result); \
  const auto next = reinterpret_cast<decltype(&::FUNCTION)>(call.next)

extern "C" {

int socket(int domain, int type, int protocol) noexcept {
  FAILS(socket, int);
  if (LentSockets::AreFor(domain)) return LentSocket();
  return next(domain, type, protocol);
}

int bind(int fd, const sockaddr* address, socklen_t size) noexcept {
  FAILS(bind, int);
  return LentSockets::AreFor(address->sa_family) ? 0 : next(fd, address, size);
}

int setsockopt(int fd, int level, int name, const void* value, socklen_t size) noexcept {
  FAILS(setsockopt, int);
  return next(fd, level, name, value, size);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  FAILS(ioctl, int);
  if (request != SIOCGIFINDEX || !LentSockets::AreFor(AF_CAN)) return next(fd, request, argument);
  static_cast<ifreq*>(argument)->ifr_ifindex = 1;
  return 0;
}

int fcntl(int fd, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  FAILS(fcntl, int);
  return next(fd, command, argument);
}

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  FAILS(open, int);
  return next(path, flags, mode);
}

/// The descriptor goes all the same, as the kernel has it, which never refuses to close a terminal.
int close(int fd) {
  static Call call{"close"};
  struct stat status {};
  const bool terminal = fstat(fd, &status) == 0 && S_ISCHR(status.st_mode);
  const int closed = reinterpret_cast<decltype(&::close)>(call.next)(fd);
  return !terminal && call.Strikes() ? -1 : closed;
}

ssize_t read(int fd, void* buffer, std::size_t size) {
  FAILS(read, ssize_t);
  return next(fd, buffer, size);
}

ssize_t write(int fd, const void* buffer, std::size_t size) {
  FAILS(write, ssize_t);
  return next(fd, buffer, size);
}

int poll(pollfd* watched, nfds_t count, int wait_ms) {
  FAILS(poll, int);
  return next(watched, count, wait_ms);
}

int pselect(int count, fd_set* reading, fd_set* writing, fd_set* failing, const timespec* wait,
            const sigset_t* mask) {
  FAILS(pselect, int);
  return next(count, reading, writing, failing, wait, mask);
}

int epoll_create1(int flags) noexcept {
  FAILS(epoll_create1, int);
  return next(flags);
}

int epoll_ctl(int fd, int operation, int watched, epoll_event* event) noexcept {
  FAILS(epoll_ctl, int);
  return next(fd, operation, watched, event);
}

int epoll_wait(int fd, epoll_event* events, int most, int wait_ms) {
  FAILS(epoll_wait, int);
  return next(fd, events, most, wait_ms);
}

int eventfd(unsigned count, int flags) noexcept {
  FAILS(eventfd, int);
  return next(count, flags);
}

int flock(int fd, int operation) noexcept {
  FAILS(flock, int);
  return next(fd, operation);
}

int tcgetattr(int fd, termios* settings) noexcept {
  FAILS(tcgetattr, int);
  return next(fd, settings);
}

int tcsetattr(int fd, int when, const termios* settings) noexcept {
  FAILS(tcsetattr, int);
  return next(fd, when, settings);
}

// A thread that the sanitizers don't hear of would blind them. The name is theirs.
// NOLINTBEGIN(readability-identifier-naming)
[[gnu::weak]] int __interceptor_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*),
                                               void*) noexcept;
// NOLINTEND(readability-identifier-naming)
int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*),
                   void* argument) noexcept {
  FAILS(pthread_create, int);
  if (&__interceptor_pthread_create == nullptr) return next(thread, attributes, function, argument);
  return __interceptor_pthread_create(thread, attributes, function, argument);
}

// The adapters' libraries, whose stand-ins are in the process.

using U32 = std::uint32_t;

#define ADAPTER_CALL(TYPE, NAME, PARAMETERS, ARGUMENTS, RECORD, SIZE)    \
  TYPE NAME PARAMETERS {                                                 \
    static Call call{#NAME};                                             \
    if (call.Strikes()) return static_cast<TYPE>(Garbled(RECORD, SIZE)); \
    return reinterpret_cast<TYPE(*) PARAMETERS>(call.next) ARGUMENTS;    \
  }
/// Is carried out all the same.
#define ADAPTER_END(TYPE, NAME, PARAMETERS, ARGUMENTS)                            \
  TYPE NAME PARAMETERS {                                                          \
    static Call call{#NAME};                                                      \
    const TYPE ended = reinterpret_cast<TYPE(*) PARAMETERS>(call.next) ARGUMENTS; \
    return call.Strikes() ? static_cast<TYPE>(present.result) : ended;            \
  }

ADAPTER_CALL(U32, VCI_OpenDevice, (U32 t, U32 i, U32 r), (t, i, r), nullptr, 0)
ADAPTER_END(U32, VCI_CloseDevice, (U32 t, U32 i), (t, i))
ADAPTER_CALL(U32, VCI_ReadBoardInfo, (U32 t, U32 i, void* info), (t, i, info), info, 75)
ADAPTER_CALL(U32, VCI_InitCAN, (U32 t, U32 i, U32 c, void* r), (t, i, c, r), r, 20)
ADAPTER_CALL(U32, VCI_SetReference, (U32 t, U32 i, U32 c, U32 k, void* v), (t, i, c, k, v), v, 4)
ADAPTER_CALL(U32, VCI_StartCAN, (U32 t, U32 i, U32 c), (t, i, c), nullptr, 0)
ADAPTER_END(U32, VCI_ResetCAN, (U32 t, U32 i, U32 c), (t, i, c))
ADAPTER_CALL(U32, VCI_TransmitFD, (U32 t, U32 i, U32 c, void* f, U32 n), (t, i, c, f, n), f, n * 80)
ADAPTER_CALL(U32, VCI_ReceiveFD, (U32 t, U32 i, U32 c, void* f, U32 n, int w), (t, i, c, f, n, w),
             f, n * 80)
ADAPTER_CALL(int, CAN_ScanDevice, (), (), nullptr, 0)
ADAPTER_CALL(int, CAN_OpenDevice, (int i, int c), (i, c), nullptr, 0)
ADAPTER_END(int, CAN_CloseDevice, (int i, int c), (i, c))
ADAPTER_CALL(int, CAN_ReadDevInfo, (int i, void* info), (i, info), info, 256)
ADAPTER_CALL(int, CAN_GetDevPlck, (int i), (i), nullptr, 0)
ADAPTER_CALL(int, CANFD_Init, (int i, int c, void* r), (i, c, r), r, 20)
ADAPTER_CALL(int, CANFD_Transmit, (int i, int c, void* f, int n, int w), (i, c, f, n, w), f,
             static_cast<std::size_t>(n) * 80)
ADAPTER_CALL(int, CANFD_Receive, (int i, int c, void* f, int n, int w), (i, c, f, n, w), f,
             static_cast<std::size_t>(n) * 80)
}
