#include "platform/spf/inprocess/internal/RendezvousPipe.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/interrupt/waitInterruptibly.h"

namespace agent::spf::inprocess::internal {

void RendezvousPipe::announce(long size) {
  const std::lock_guard lock(mutex_);
  announced_ = size;
}

void RendezvousPipe::write(std::span<const char> bytes) {
  std::unique_lock lock(mutex_);
  if (brokenWriter_ != nullptr)
    std::rethrow_exception(brokenWriter_);
  if (bytes.empty() || dropping_)
    return;
  lent_ = bytes;
  changed_.notify_all();
  changed_.wait(lock, [this] { return lent_.empty() || dropping_ || brokenReader_ != nullptr; });
  const bool read = std::exchange(lent_, {}).empty();
  if (!read && brokenWriter_ != nullptr)  // bytes that were read were written, whatever came after
    std::rethrow_exception(brokenWriter_);
}

void RendezvousPipe::end() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  changed_.notify_all();
}

void RendezvousPipe::fail(std::exception_ptr error) {
  const std::lock_guard lock(mutex_);
  if (!ended_ && failure_ == nullptr)
    failure_ = std::move(error);
  changed_.notify_all();
}

// Copies under the mutex: only there is the writer sure to stay.
std::size_t RendezvousPipe::read(std::span<char> to) {
  std::unique_lock lock(mutex_);
  waitInterruptibly(changed_, lock,
                    [this] { return !lent_.empty() || ended_ || failure_ != nullptr || brokenReader_ != nullptr; });
  if (brokenReader_ != nullptr && !ended_)
    std::rethrow_exception(brokenReader_);
  if (!lent_.empty()) {
    const std::size_t nbytes = std::min(to.size(), lent_.size());
    std::memcpy(to.data(), lent_.data(), nbytes);
    lent_ = lent_.subspan(nbytes);
    given_ += static_cast<long>(nbytes);
    if (lent_.empty())
      changed_.notify_all();
    return nbytes;
  }
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  return 0;
}

std::optional<long> RendezvousPipe::remaining() const {
  const std::lock_guard lock(mutex_);
  if (!announced_)
    return std::nullopt;
  return *announced_ - given_;
}

bool RendezvousPipe::stopReading() {
  const std::lock_guard lock(mutex_);
  dropping_ = true;
  changed_.notify_all();
  return !ended_ && failure_ == nullptr && brokenReader_ == nullptr;
}

void RendezvousPipe::breakOff(std::exception_ptr forReader, std::exception_ptr forWriter) {
  const std::lock_guard lock(mutex_);
  if (brokenReader_ == nullptr) {
    brokenReader_ = std::move(forReader);
    brokenWriter_ = std::move(forWriter);
  }
  changed_.notify_all();
}

bool RendezvousPipe::isBroken() const {
  const std::lock_guard lock(mutex_);
  return brokenReader_ != nullptr;
}

}  // namespace agent::spf::inprocess::internal
