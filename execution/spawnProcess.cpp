#include "execution/spawnProcess.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include "execution/Children.h"
#include "execution/findProgram.h"
#include "platform/errors/systemError.h"

namespace parallel::execution {

using errors::systemErrorText;
using files::UniqueFd;

namespace {

enum class Step : int { Group, Parent, Directory, Streams, Descriptors, Limits, Exec };

// What the child reports through the pipe when it fails.
struct Report {
  Step step;
  int error;
};

// All that the child needs, made before it exists.
struct ChildPlan {
  const char* program;
  char* const* argv;
  char* const* environment;
  int directory;
  std::array<int, 3> streams;
  int reportPipe;
  const ResourceLimit* limits;
  std::size_t limitCount;
  pid_t parent;
};

// --- In the child: system calls only ---

[[noreturn]] void failChild(const ChildPlan& plan, Step step) noexcept {
  const Report report{step, errno};
  // Smaller than PIPE_BUF, so it is written whole; if even that fails, the exit code remains.
  [[maybe_unused]] const ssize_t written = ::write(plan.reportPipe, &report, sizeof report);
  ::_exit(127);
}

void resetSignals() noexcept {
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal)
    ::sigaction(signal, &defaults, nullptr);  // fails for those that cannot be changed
}

bool applyLimit(const ResourceLimit& limit) noexcept {
  struct rlimit current {};
  const auto resource = static_cast<__rlimit_resource_t>(limit.resource);
  if (::getrlimit(resource, &current) != 0)
    return false;
  const struct rlimit wanted { std::min(limit.soft, current.rlim_max), std::min(limit.hard, current.rlim_max) };
  return ::setrlimit(resource, &wanted) == 0;
}

[[noreturn]] void runChild(const ChildPlan& plan) noexcept {
  if (::setpgid(0, 0) != 0)
    failChild(plan, Step::Group);
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != plan.parent)
    failChild(plan, Step::Parent);
  resetSignals();
  if (::fchdir(plan.directory) != 0)
    failChild(plan, Step::Directory);
  for (int stream = 0; stream < 3; ++stream) {
    if (::dup2(plan.streams[static_cast<std::size_t>(stream)], stream) < 0)
      failChild(plan, Step::Streams);
  }
  if (::syscall(SYS_close_range, 3U, ~0U, CLOSE_RANGE_CLOEXEC) != 0)
    failChild(plan, Step::Descriptors);
  for (std::size_t i = 0; i < plan.limitCount; ++i) {
    if (!applyLimit(plan.limits[i]))
      failChild(plan, Step::Limits);
  }
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execve(plan.program, plan.argv, plan.environment);
  failChild(plan, Step::Exec);
}

// --- In the parent ---

// A function of its own: what lives across vfork may be changed by the child.
__attribute__((noinline)) pid_t startChild(const ChildPlan& plan) noexcept {
  const pid_t pid = ::vfork();
  if (pid == 0)
    runChild(plan);
  return pid;
}

class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t previous_{};
};

[[noreturn]] void failToStart(const std::string& program, const std::string& reason) {
  throw StartFailure("Cannot run \"" + program + "\": " + reason);
}

[[noreturn]] void failToStart(const std::string& program, const std::string& step, int error) {
  failToStart(program, step + systemErrorText(error));
}

// More than the system says where that misleads: a file that is there "is not", a directory is a matter of permissions.
std::string reasonNotRun(const SpawnRequest& request, int error) {
  struct stat status {};
  const bool exists = ::fstatat(request.directory, request.program.c_str(), &status, 0) == 0;
  if (exists && S_ISDIR(status.st_mode))
    return "it is a directory";
  if (exists && error == ENOENT)
    return "the interpreter or loader that it names is not there";
  if (error == ENOEXEC)
    return "it is neither a program nor a script that names its interpreter after #! in its first line";
  return systemErrorText(error);
}

std::string stepText(Step step) {
  switch (step) {
    case Step::Group:
      return "making its process group: ";
    case Step::Parent:
      return "tying it to the service: ";
    case Step::Directory:
      return "entering its directory: ";
    case Step::Streams:
      return "connecting its streams: ";
    case Step::Descriptors:
      return "closing descriptors: ";
    case Step::Limits:
      return "setting its limits: ";
    case Step::Exec:
      break;  // reasonNotRun says it
  }
  return "";
}

// A copy out of the way of the standard streams, which the child is about to replace.
UniqueFd aboveStandard(int fd, const std::string& program) {
  constexpr int kFirst = 3;
  UniqueFd copy(::fcntl(fd, F_DUPFD_CLOEXEC, kFirst));
  if (!copy)
    failToStart(program, "copying a descriptor: ", errno);
  return copy;
}

UniqueFd inputOf(const SpawnRequest& request) {
  if (request.standardInput >= 0)
    return aboveStandard(request.standardInput, request.program);
  const UniqueFd nothing(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!nothing)
    failToStart(request.program, "opening /dev/null: ", errno);
  return aboveStandard(nothing.get(), request.program);
}

struct Pipe {
  UniqueFd reading;
  UniqueFd writing;
};

Pipe makePipe(const std::string& program) {
  std::array<int, 2> ends{};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0)
    failToStart(program, "making a pipe: ", errno);
  const UniqueFd reading(ends[0]);
  const UniqueFd writing(ends[1]);
  return {aboveStandard(reading.get(), program), aboveStandard(writing.get(), program)};
}

std::vector<std::string> environmentOf(const SpawnRequest& request) {
  std::vector<std::string> entries = request.environment;
  if (!request.mark)
    return entries;
  const std::string name = std::string(AttemptMark::kVariable) + "=";
  std::erase_if(entries, [&](const std::string& entry) { return entry.starts_with(name); });
  entries.push_back(name + request.mark->text());
  return entries;
}

std::vector<char*> pointersTo(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const std::string& text : texts)
    pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

// The child's report; false when it reached its program, which closes the pipe.
bool readReport(const UniqueFd& pipe, Report& report) {
  ssize_t got = 0;
  do {
    got = ::read(pipe.get(), &report, sizeof report);
  } while (got < 0 && errno == EINTR);
  return got == static_cast<ssize_t>(sizeof report);
}

void reap(pid_t pid) {
  struct rusage ignored {};
  Children::ofThisProcess().waitFor(pid, ignored);
}

}  // namespace

SpawnedProcess spawnProcess(const SpawnRequest& request) {
  const std::string& name = request.program;
  const UniqueFd input = inputOf(request);
  const UniqueFd output = aboveStandard(request.standardOutput, name);
  const UniqueFd error = aboveStandard(request.standardError, name);
  const UniqueFd directory = aboveStandard(request.directory, name);
  Pipe pipe = makePipe(name);
  const std::vector<char*> argv = pointersTo(request.argv);
  const std::vector<std::string> entries = environmentOf(request);
  const std::vector<char*> environment = pointersTo(entries);
  const ChildPlan plan{name.c_str(),
                       argv.data(),
                       environment.data(),
                       directory.get(),
                       {input.get(), output.get(), error.get()},
                       pipe.writing.get(),
                       request.limits.data(),
                       request.limits.size(),
                       ::getpid()};
  SpawnedProcess process;
  Children::Start start(Children::ofThisProcess());
  int startError = 0;
  {
    const AllSignalsBlocked blocked;
    process.pid = startChild(plan);
    startError = errno;
  }
  if (process.pid < 0)
    failToStart(name, "making a process: ", startError);
  start.succeeded(process.pid, request.mark);
  pipe.writing.reset();
  Report report{};
  if (readReport(pipe.reading, report)) {
    reap(process.pid);
    if (report.step == Step::Exec)
      failToStart(name, reasonNotRun(request, report.error));
    failToStart(name, stepText(report.step), report.error);
  }
  process.pidfd = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, process.pid, 0)));
  if (!process.pidfd) {
    const int failure = errno;
    ::kill(-process.pid, SIGKILL);
    reap(process.pid);
    failToStart(name, "watching it: ", failure);
  }
  return process;
}

}  // namespace parallel::execution
