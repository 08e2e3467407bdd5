// A lock that many readers or one writer hold. See Mutex.h.
#pragma once

#include <shared_mutex>

#include "platform/threads/annotations.h"

namespace parallel::threads {

class ZKS_CAPABILITY("shared mutex") SharedMutex {
 public:
  SharedMutex() = default;
  SharedMutex(const SharedMutex&) = delete;
  SharedMutex& operator=(const SharedMutex&) = delete;

  void lock() ZKS_ACQUIRE() { mutex_.lock(); }
  void unlock() ZKS_RELEASE() { mutex_.unlock(); }
  void lock_shared() ZKS_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void unlock_shared() ZKS_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Hold it for writing, or for reading, from construction to destruction.
class ZKS_SCOPED_CAPABILITY WriterLock {
 public:
  explicit WriterLock(SharedMutex& mutex) ZKS_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~WriterLock() ZKS_RELEASE() { mutex_.unlock(); }
  WriterLock(const WriterLock&) = delete;
  WriterLock& operator=(const WriterLock&) = delete;

 private:
  SharedMutex& mutex_;
};

class ZKS_SCOPED_CAPABILITY ReaderLock {
 public:
  explicit ReaderLock(SharedMutex& mutex) ZKS_ACQUIRE_SHARED(mutex) : mutex_(mutex) { mutex_.lock_shared(); }
  ~ReaderLock() ZKS_RELEASE_GENERIC() { mutex_.unlock_shared(); }
  ReaderLock(const ReaderLock&) = delete;
  ReaderLock& operator=(const ReaderLock&) = delete;

 private:
  SharedMutex& mutex_;
};

}  // namespace parallel::threads
