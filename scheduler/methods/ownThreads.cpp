#include "scheduler/methods/ownThreads.h"

namespace parallel::scheduler::methods {

namespace {

thread_local bool isMarked = false;

}  // namespace

void markOwnThread() noexcept {
  isMarked = true;
}

bool isOwnThread() noexcept {
  return isMarked;
}

}  // namespace parallel::scheduler::methods
