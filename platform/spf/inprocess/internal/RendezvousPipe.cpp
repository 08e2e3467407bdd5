#include "platform/spf/inprocess/internal/RendezvousPipe.h"

#include <utility>

namespace agent::spf::inprocess::internal {

void RendezvousPipe::announce(long size) {
  const std::lock_guard lock(mutex_);
  announced_ = size;
}

// A reader that has taken the bytes is waited for in any case: it reads the writer's memory.
void RendezvousPipe::write(std::span<const char> bytes) {
  std::unique_lock lock(mutex_);
  if (brokenWriter_ != nullptr)
    std::rethrow_exception(brokenWriter_);
  if (bytes.empty() || dropping_)
    return;
  lent_ = bytes;
  changed_.notify_all();
  changed_.wait(lock, [this] { return lent_.empty() || (!taken_ && (dropping_ || brokenReader_ != nullptr)); });
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

// Under the mutex: what the reader had is the writer's again.
void RendezvousPipe::takeBack() {
  if (!std::exchange(taken_, false))
    return;
  lent_ = {};
  changed_.notify_all();
}

std::span<const char> RendezvousPipe::read() {
  std::unique_lock lock(mutex_);
  takeBack();
  changed_.wait(lock, [this] { return !lent_.empty() || ended_ || failure_ != nullptr || brokenReader_ != nullptr; });
  if (brokenReader_ != nullptr && !ended_)
    std::rethrow_exception(brokenReader_);
  if (!lent_.empty()) {
    taken_ = true;
    given_ += static_cast<long>(lent_.size());
    return lent_;
  }
  if (failure_ != nullptr)
    std::rethrow_exception(failure_);
  return {};
}

std::optional<long> RendezvousPipe::remaining() const {
  const std::lock_guard lock(mutex_);
  if (!announced_)
    return std::nullopt;
  return *announced_ - given_;
}

bool RendezvousPipe::stopReading() {
  const std::lock_guard lock(mutex_);
  takeBack();
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
