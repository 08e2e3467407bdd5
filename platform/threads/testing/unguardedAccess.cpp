// Must not compile without a warning: reads a guarded field without its lock.
#include "platform/threads/Mutex.h"

class Counter {
 public:
  int count() const { return count_; }

 private:
  parallel::threads::Mutex mutex_;
  int count_ ZKS_GUARDED_BY(mutex_) = 0;
};

int count(const Counter& counter) {
  return counter.count();
}
