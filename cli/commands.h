// What the commands do. Each returns the exit code of zks and throws what goes wrong.
#pragma once

#include "cli/CommandLine.h"

namespace zks {

constexpr int kFailureExit = 1;       // echo and call
constexpr int kTimedOutExit = 124;    // run: the task's time was over
constexpr int kRunFailureExit = 125;  // run: zks itself failed
constexpr int kNotStartedExit = 127;  // run: the task could not be started
constexpr int kSignalExit = 128;      // plus the signal's number

int runCommand(const GlobalOptions& global, const RunOptions& options);
int echoCommand(const GlobalOptions& global, const EchoOptions& options);
int callCommand(const GlobalOptions& global, const CallOptions& options);

}  // namespace zks
