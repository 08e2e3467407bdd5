// What the commands of kept jobs do. Each returns the exit code of zks and throws what goes wrong.
#pragma once

#include "cli/CommandLine.h"
#include "cli/jobOptions.h"

namespace zks {

int jobCommand(const GlobalOptions& global, const JobCommand& command);

int submitCommand(const GlobalOptions& global, const SubmitOptions& options);

int jobsCommand(const GlobalOptions& global, const JobsOptions& options);
int showCommand(const GlobalOptions& global, const ShowOptions& options);
int tasksCommand(const GlobalOptions& global, const TasksOptions& options);
int workersCommand(const GlobalOptions& global, const WorkersOptions& options);
int statusCommand(const GlobalOptions& global, const StatusOptions& options);

int logsCommand(const GlobalOptions& global, const LogsOptions& options);
int waitCommand(const GlobalOptions& global, const WaitOptions& options);
int fetchCommand(const GlobalOptions& global, const FetchOptions& options);

int steerCommand(const GlobalOptions& global, const SteerOptions& options);
int pruneCommand(const GlobalOptions& global, const PruneOptions& options);
int drainCommand(const GlobalOptions& global, const DrainOptions& options);

int serviceCommand(const GlobalOptions& global, const ServiceOptions& options);

}  // namespace zks
