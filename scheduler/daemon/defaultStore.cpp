#include "scheduler/daemon/defaultStore.h"

#include <cstdlib>

#include "scheduler/daemon/DaemonError.h"

namespace parallel::scheduler {

namespace fs = std::filesystem;

fs::path defaultStore() {
  // NOLINTBEGIN(concurrency-mt-unsafe): nothing here changes the environment
  if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/')
    return fs::path(state) / "zks" / "store";
  if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/')
    return fs::path(home) / ".local" / "state" / "zks" / "store";
  // NOLINTEND(concurrency-mt-unsafe)
  throw DaemonError("There is no home to keep jobs in; name a folder for them with --store DIR");
}

}  // namespace parallel::scheduler
