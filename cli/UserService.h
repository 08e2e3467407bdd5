// This user's own service: zksd at the default socket file, started where nobody has.
//
// A service that is started here runs in a session of its own and outlives whoever started it. What it says goes to
// zksd.log in $XDG_STATE_HOME/zks, or in ~/.local/state/zks. It leaves when it has had nothing to do for a day.
// Errors: CliError says what is in the way.
#pragma once

#include <sys/types.h>

#include <optional>

namespace zks {

// The process that listens there; nothing when none does.
std::optional<pid_t> findUserService();

// Returns when one listens there, and says so when it had to be started. Of several who start one at once, one service
// stays.
void startUserService();

// Ends the service politely and waits until it is gone. False when there was none.
bool stopUserService();

}  // namespace zks
