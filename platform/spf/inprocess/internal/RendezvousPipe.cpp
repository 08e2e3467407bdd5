#include "platform/spf/inprocess/internal/RendezvousPipe.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/interrupt/waitInterruptibly.h"

namespace agent::spf::inprocess::internal {

using parallel::threads::MutexLock;

void RendezvousPipe::announce(long size) {
  const MutexLock lock(mutex_);
  announced_ = size;
}

void RendezvousPipe::write(std::span<const char> bytes) {
  MutexLock lock(mutex_);
  if (writersReason_ != nullptr)
    std::rethrow_exception(writersReason_);
  if (bytes.empty() || dropping_)
    return;
  lent_ = bytes;
  changed_.notifyAll();
  changed_.wait(lock,
                [this]() ZKS_REQUIRES(mutex_) { return lent_.empty() || dropping_ || readersReason_ != nullptr; });
  const bool read = std::exchange(lent_, {}).empty();
  if (!read && writersReason_ != nullptr)  // bytes that were read were written, whatever came after
    std::rethrow_exception(writersReason_);
}

void RendezvousPipe::end() {
  const MutexLock lock(mutex_);
  ended_ = true;
  changed_.notifyAll();
}

void RendezvousPipe::fail(std::exception_ptr error) {
  const MutexLock lock(mutex_);
  if (!ended_ && failure_ == nullptr)
    failure_ = std::move(error);
  changed_.notifyAll();
}

// Copies under the mutex: only there is the writer sure to stay.
std::size_t RendezvousPipe::read(std::span<char> to) {
  MutexLock lock(mutex_);
  waitInterruptibly(changed_, lock, [this]() ZKS_REQUIRES(mutex_) {
    return !lent_.empty() || ended_ || failure_ != nullptr || readersReason_ != nullptr;
  });
  if (readersReason_ != nullptr && !ended_)
    std::rethrow_exception(readersReason_);
  if (!lent_.empty()) {
    const std::size_t nbytes = std::min(to.size(), lent_.size());
    std::memcpy(to.data(), lent_.data(), nbytes);
    lent_ = lent_.subspan(nbytes);
    given_ += static_cast<long>(nbytes);
    if (lent_.empty())
      changed_.notifyAll();
    return nbytes;
  }
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  return 0;
}

std::optional<long> RendezvousPipe::remaining() const {
  const MutexLock lock(mutex_);
  if (!announced_)
    return std::nullopt;
  return *announced_ - given_;
}

bool RendezvousPipe::stopReading() {
  const MutexLock lock(mutex_);
  dropping_ = true;
  changed_.notifyAll();
  return !ended_ && failure_ == nullptr && readersReason_ == nullptr;
}

void RendezvousPipe::breakOff(std::exception_ptr forReader, std::exception_ptr forWriter) {
  const MutexLock lock(mutex_);
  if (readersReason_ == nullptr) {
    readersReason_ = std::move(forReader);
    writersReason_ = std::move(forWriter);
  }
  changed_.notifyAll();
}

bool RendezvousPipe::isBrokenOff() const {
  const MutexLock lock(mutex_);
  return readersReason_ != nullptr;
}

}  // namespace agent::spf::inprocess::internal
