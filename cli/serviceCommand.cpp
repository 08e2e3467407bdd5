#include "cli/StandardStreams.h"
#include "cli/UserService.h"
#include "cli/jobCommands.h"

namespace zks {
namespace {

int tell(bool wasThere) {
  const auto process = findUserService();
  if (!process) {
    writeOutput("The service does not run\n");
    return 1;
  }
  writeOutput(std::string(wasThere ? "The service runs" : "The service was started") + " (process " +
              std::to_string(*process) + ")\n");
  return 0;
}

int start() {
  const bool wasThere = findUserService().has_value();
  startUserService();
  return tell(wasThere);
}

int stop() {
  writeOutput(stopUserService() ? "The service was stopped; its jobs are kept\n" : "The service does not run\n");
  return 0;
}

}  // namespace

int serviceCommand(const GlobalOptions&, const ServiceOptions& options) {
  switch (options.action) {
    case ServiceOptions::Action::Start:
      return start();
    case ServiceOptions::Action::Stop:
      return stop();
    case ServiceOptions::Action::Restart:
      stopUserService();
      return start();
    case ServiceOptions::Action::Status:
      return tell(true);
  }
  return 0;
}

}  // namespace zks
