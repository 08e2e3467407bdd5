#include <vector>

#include "cli/JobSession.h"
#include "cli/jobCommands.h"
#include "cli/jobNames.h"
#include "cli/jobTexts.h"
#include "cli/jobWaiting.h"
#include "platform/interrupt/utInterruptState.h"

namespace zks {

int waitCommand(const GlobalOptions& global, const WaitOptions& options) {
  JobSession session(global);
  std::vector<std::uint64_t> jobs;
  jobs.reserve(options.jobs.size());
  for (const std::string& name : options.jobs)
    jobs.push_back(jobNumber(session, name));
  bool good = true;
  for (const std::uint64_t job : jobs) {
    try {
      const auto ended = waitForEnd(session, job);
      good = good && allSucceeded(ended);
      if (!options.quiet)
        tellHowItEnded(session, ended);
    } catch (const Corvane::System::InterruptException&) {
      sayThatItGoesOn(job);
      throw;
    }
  }
  return good ? 0 : 1;
}

}  // namespace zks
