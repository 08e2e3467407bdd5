#include "cli/localWorker.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

#include "cli/CliError.h"
#include "cli/StandardStreams.h"
#include "cli/backgroundProgram.h"
#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"
#include "platform/interrupt/throwIfInterrupted.h"

namespace zks {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kStartLimit{20};
constexpr std::chrono::milliseconds kLook{20};
constexpr const char* kIdleSeconds = "86400";

bool hasWorker(JobSession& session) {
  const auto workers = session.ask([](const auto& client) { return client.listWorkers(); });
  return std::any_of(workers.workers().begin(), workers.workers().end(),
                     [](const auto& worker) { return !worker.unreachable() && !worker.draining(); });
}

bool isOnPath(const std::string& program) {
  const char* path = std::getenv("PATH");
  for (std::string_view rest = path != nullptr ? path : ""; !rest.empty();) {
    const std::string_view folder = rest.substr(0, rest.find(':'));
    rest.remove_prefix(std::min(folder.size() + 1, rest.size()));
    if (::access((std::string(folder) + "/" + program).c_str(), X_OK) == 0)
      return true;
  }
  return false;
}

bool isForSubmittingOnly() {
  return isOnPath("sbatch") && std::getenv("SLURM_JOB_ID") == nullptr;
}

// One at a time looks for a worker and starts it: two of them would each take the whole machine.
files::UniqueFd lockStarting() {
  const std::string path = userStateFolder() + "/worker.lock";
  files::UniqueFd file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (!file)
    throw CliError("the file \"" + path + "\" cannot be made: " + errors::systemErrorText(errno));
  while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    throwIfInterrupted();
    std::this_thread::sleep_for(kLook);
  }
  return file;
}

void start(JobSession& session) {
  const std::string log = logPath("zks-worker");
  const pid_t process = startInBackground(
      {siblingProgram("zks-worker", "worker"), "--address", "unix:", "--idle-limit", kIdleSeconds}, log);
  for (const auto end = Clock::now() + kStartLimit; !hasWorker(session); std::this_thread::sleep_for(kLook)) {
    throwIfInterrupted();
    if (Clock::now() >= end) {
      say("the worker (zks-worker, process " + std::to_string(process) + ") has not joined the service; its log is " +
          log);
      return;
    }
  }
  say("started a worker (zks-worker, process " + std::to_string(process) + "); its log is " + log);
}

}  // namespace

void provideWorker(JobSession& session) {
  if (!session.isUsersOwn() || hasWorker(session))
    return;
  if (isForSubmittingOnly()) {
    say("no worker runs, and none is started on a machine from which batch jobs are submitted; start zks-worker where "
        "the "
        "tasks are to run");
    return;
  }
  try {
    const files::UniqueFd lock = lockStarting();
    if (!hasWorker(session))
      start(session);
  } catch (const CliError& error) {
    say("no worker runs: " + std::string(error.what()));  // the job is kept for one that comes
  }
}

}  // namespace zks
