#include "korvane_sim/in_process_adapters.h"

#include <stdexcept>

#include "util/clock.h"
#include "util/guarded.h"
#include "world.h"

namespace talvera::korvane::sim {
namespace {

struct Slot {
  Mutex mutex;
  std::shared_ptr<Backend> backend KORVANE_GUARDED_BY(mutex);
};

Slot& TheSlot() {
  // Hands with static storage may still call while the process ends.
  static auto* const slot = new Slot;
  return *slot;
}

}  // namespace

std::shared_ptr<Backend> CurrentBackend() {
  const MutexLock lock(TheSlot().mutex);
  return TheSlot().backend;
}

class InProcessAdapters::Impl {
 public:
  Impl(const AdapterOptions& options, Clock& clock)
      : world_(std::make_shared<World>(options, clock)) {
    const MutexLock lock(TheSlot().mutex);
    if (TheSlot().backend) throw std::logic_error("another InProcessAdapters lives");
    TheSlot().backend = world_;
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;
  ~Impl() {
    const MutexLock lock(TheSlot().mutex);
    TheSlot().backend.reset();
  }

  World& GetWorld() { return *world_; }

 private:
  std::shared_ptr<World> world_;
};

InProcessAdapters::InProcessAdapters(const AdapterOptions& options)
    : InProcessAdapters(options, SystemClock()) {}
InProcessAdapters::InProcessAdapters(const AdapterOptions& options, Clock& clock)
    : impl_(std::make_unique<Impl>(options, clock)) {}
InProcessAdapters::~InProcessAdapters() = default;

VirtualBus& InProcessAdapters::Bus(std::size_t adapter, std::size_t channel) {
  return impl_->GetWorld().Bus(adapter, channel);
}

}  // namespace talvera::korvane::sim
