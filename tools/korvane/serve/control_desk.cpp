#include "control_desk.h"

#include "secret.h"

namespace korvane_tool {

using talvera::korvane::MutexLock;

void ControlDesk::Expire() {
  const auto now = Clock::now();
  if (now - hold_sign_ > kHoldTime) target_.reset();
  if (now - owner_sign_ > kOwnerTime) secret_.clear();
}

bool ControlDesk::IsOwner(const std::string& secret) {
  Expire();
  if (!IsSecret(secret_, secret)) return false;
  owner_sign_ = Clock::now();
  return true;
}

std::optional<ControlDesk::Ticket> ControlDesk::Take() {
  const MutexLock lock(mutex_);
  Expire();
  if (!secret_.empty()) return std::nullopt;
  secret_ = NewSecret();
  owner_sign_ = Clock::now();
  return Ticket{++last_owner_, secret_};
}

bool ControlDesk::Keep(const std::string& secret) {
  const MutexLock lock(mutex_);
  return IsOwner(secret);
}

bool ControlDesk::GiveUp(const std::string& secret) {
  const MutexLock lock(mutex_);
  if (!IsOwner(secret)) return false;
  secret_.clear();
  target_.reset();
  return true;
}

bool ControlDesk::Aim(const std::string& secret, const Pose& target) {
  const MutexLock lock(mutex_);
  if (!IsOwner(secret)) return false;
  target_ = target;
  hold_sign_ = Clock::now();
  return true;
}

bool ControlDesk::Release(const std::string& secret) {
  const MutexLock lock(mutex_);
  if (!IsOwner(secret)) return false;
  target_.reset();
  return true;
}

void ControlDesk::Drop() {
  const MutexLock lock(mutex_);
  secret_.clear();
  target_.reset();
}

ControlDesk::State ControlDesk::Look() {
  const MutexLock lock(mutex_);
  Expire();
  return {secret_.empty() ? 0 : last_owner_, target_};
}

}  // namespace korvane_tool
