#include "scheduler/store/Reserve.h"

#include <exception>
#include <utility>

namespace parallel::scheduler::store {

using threads::MutexLock;

Reserve::Reserve(Files& files, std::filesystem::path path, std::uint64_t nbytes)
    : files_(files), path_(std::move(path)), nbytes_(nbytes) {}

bool Reserve::take() noexcept try {
  const MutexLock lock(mutex_);
  if (!isTaken_)
    files_.allocate(files_.openToAppend(path_), nbytes_, path_);
  isTaken_ = true;
  return true;
} catch (const std::exception&) {
  give();  // what it got before there was no more
  return false;
}

bool Reserve::give() noexcept try {
  const MutexLock lock(mutex_);
  files_.remove(path_);
  return std::exchange(isTaken_, false);
} catch (const std::exception&) {
  return false;
}

bool Reserve::isTaken() const {
  const MutexLock lock(mutex_);
  return isTaken_;
}

}  // namespace parallel::scheduler::store
