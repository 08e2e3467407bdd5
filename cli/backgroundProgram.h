// Programs that zks starts and leaves running.
//
// Errors: CliError says what is in the way.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace zks {

// $XDG_STATE_HOME/zks or ~/.local/state/zks, made if it is missing.
std::string userStateFolder();

// PROGRAM.log there.
std::string logPath(const std::string& program);

// In a session of its own, with nothing to read, what it writes added to the log.
pid_t startInBackground(std::vector<std::string> words, const std::string& log);

}  // namespace zks
