// Where zksd keeps jobs when it is not told.
#pragma once

#include <filesystem>

namespace parallel::scheduler {

// $XDG_STATE_HOME/zks/store, or ~/.local/state/zks/store. DaemonError when there is no home.
std::filesystem::path defaultStore();

}  // namespace parallel::scheduler
