#include "cli/jobNames.h"

#include <charconv>

#include "cli/CliError.h"

namespace zks {

std::uint64_t jobNumber(JobSession& session, const std::string& name) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  if (error == std::errc() && end == name.data() + name.size() && number > 0)
    return number;
  parallel::zksmessages::ListJobsRequest request;
  request.set_limit(1);
  if (name != "last")
    request.set_name(name);
  const auto jobs = session.ask([&](const auto& client) { return client.listJobs(request); });
  if (jobs.jobs_size() == 0)
    throw CliError(name == "last" ? "there is no job yet" : "there is no job \"" + name + "\"");
  return jobs.jobs(0).job();
}

}  // namespace zks
