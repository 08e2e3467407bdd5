// Passes bytes from a writing thread to a reading one without storing them: the writer waits while the reader copies
// them out of its memory. A reader that pauses holds none of that memory, so that the writer can always be let go.
#pragma once

#include <cstddef>
#include <exception>
#include <optional>
#include <span>

#include "platform/threads/Mutex.h"

namespace agent::spf::inprocess::internal {

// Threads: one writer, one reader, and breakOff() from any.
class RendezvousPipe {
 public:
  // Writer. write() returns when the reader has taken the bytes, and throws what broke the pipe off.
  void announce(long size);
  void write(std::span<const char> bytes);
  void end();
  void fail(std::exception_ptr error);  // the reader gets it after what was written

  // Reader. read() waits for bytes and says how many it has copied, 0 at the end only; errors as ByteInlet::next().
  std::size_t read(std::span<char> to);
  std::optional<long> remaining() const;
  // The reader reads no more: writes are dropped from now on. True when the end had not come yet.
  bool stopReading();

  // Each side gets its error from now on, unless the pipe has ended.
  void breakOff(std::exception_ptr forReader, std::exception_ptr forWriter);
  bool isBrokenOff() const;

 private:
  mutable parallel::threads::Mutex mutex_;
  parallel::threads::ConditionVariable changed_;
  std::span<const char> lent_ ZKS_GUARDED_BY(mutex_);  // not empty while the writer waits
  bool ended_ ZKS_GUARDED_BY(mutex_) = false;
  bool dropping_ ZKS_GUARDED_BY(mutex_) = false;
  std::exception_ptr failure_ ZKS_GUARDED_BY(mutex_);  // for the reader, after what was written
  // Why the pipe is broken off, for each side; null while it is not.
  std::exception_ptr readersReason_ ZKS_GUARDED_BY(mutex_);
  std::exception_ptr writersReason_ ZKS_GUARDED_BY(mutex_);
  std::optional<long> announced_ ZKS_GUARDED_BY(mutex_);
  long given_ ZKS_GUARDED_BY(mutex_) = 0;
};

}  // namespace agent::spf::inprocess::internal
