#include "cli/jobCommands.h"

namespace zks {

int jobCommand(const GlobalOptions& global, const JobCommand& command) {
  struct Execute {
    const GlobalOptions& global;
    int operator()(const SubmitOptions& options) const { return submitCommand(global, options); }
    int operator()(const JobsOptions& options) const { return jobsCommand(global, options); }
    int operator()(const ShowOptions& options) const { return showCommand(global, options); }
    int operator()(const TasksOptions& options) const { return tasksCommand(global, options); }
    int operator()(const LogsOptions& options) const { return logsCommand(global, options); }
    int operator()(const WaitOptions& options) const { return waitCommand(global, options); }
    int operator()(const FetchOptions& options) const { return fetchCommand(global, options); }
    int operator()(const SteerOptions& options) const { return steerCommand(global, options); }
    int operator()(const PruneOptions& options) const { return pruneCommand(global, options); }
    int operator()(const WorkersOptions& options) const { return workersCommand(global, options); }
    int operator()(const DrainOptions& options) const { return drainCommand(global, options); }
    int operator()(const StatusOptions& options) const { return statusCommand(global, options); }
    int operator()(const ServiceOptions& options) const { return serviceCommand(global, options); }
  };
  return std::visit(Execute{global}, command);
}

}  // namespace zks
