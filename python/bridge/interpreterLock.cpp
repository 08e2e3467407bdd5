#include "python/bridge/interpreterLock.h"

#include <unistd.h>

namespace zks::bridge {

void stopForEver() noexcept {
  while (true)
    ::pause();
}

Unlocked::~Unlocked() {
  callPython([this] { PyEval_RestoreThread(released_); });
}

}  // namespace zks::bridge
