#include "execution/procFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <thread>

#include "platform/files/UniqueFd.h"

namespace parallel::execution {

using files::UniqueFd;
namespace fs = std::filesystem;

namespace {

template <class Number>
std::optional<Number> numberIn(std::string_view text) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size())
    return std::nullopt;
  return number;
}

std::string wholeFile(const std::string& path) {
  constexpr std::size_t kPieceBytes = 16384;
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string content;
  for (ssize_t got = 0; file;) {
    const std::size_t size = content.size();
    content.resize(size + kPieceBytes);
    do {
      got = ::read(file.get(), content.data() + size, kPieceBytes);
    } while (got < 0 && errno == EINTR);
    content.resize(size + static_cast<std::size_t>(got > 0 ? got : 0));
    if (got <= 0)
      break;
  }
  return content;
}

std::string fileOf(pid_t pid, const char* name) {
  return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string childrenFile() {
  return "/proc/self/task/" + std::to_string(::getpid()) + "/children";
}

// Whether an environment that was found empty between the two looks is empty, and not that of a process that was becoming
// another program, which for a moment has none.
bool isSettled(const std::optional<ProcessStatus>& before, const std::optional<ProcessStatus>& after) {
  if (!before || !after || !after->hasMemory)
    return true;
  return after->environmentEnd != 0 && before->environmentBegin == after->environmentBegin &&
         before->environmentEnd == after->environmentEnd;
}

// Of a program that keeps its addresses to itself nothing is ever settled.
std::string wholeEnvironment(pid_t pid) {
  constexpr std::chrono::milliseconds kPatience{100};
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const std::optional<ProcessStatus> before = processStatus(pid);
    std::string content = wholeFile(fileOf(pid, "environ"));
    if (!content.empty() || isSettled(before, processStatus(pid)) || std::chrono::steady_clock::now() >= deadline)
      return content;
    std::this_thread::yield();
  }
}

// Calls `visit` with each part; parts end with the separator or with the text.
template <class Visit>
void forEachPart(std::string_view text, char separator, Visit visit) {
  while (!text.empty()) {
    const std::string_view part = text.substr(0, text.find(separator));
    visit(part);
    text.remove_prefix(std::min(part.size() + 1, text.size()));
  }
}

}  // namespace

std::vector<pid_t> processesOfThisUser() {
  std::vector<pid_t> found;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end; entry.increment(error)) {
    const std::optional<pid_t> pid = numberIn<pid_t>(entry->path().filename().native());
    struct stat status {};
    if (pid && ::stat(entry->path().c_str(), &status) == 0 && status.st_uid == ::geteuid())
      found.push_back(*pid);
  }
  return found;
}

bool canListChildren() {
  return ::access(childrenFile().c_str(), R_OK) == 0;
}

std::vector<pid_t> childrenOfMainThread() {
  std::vector<pid_t> found;
  forEachPart(wholeFile(childrenFile()), ' ', [&](std::string_view part) {
    if (const std::optional<pid_t> pid = numberIn<pid_t>(part))
      found.push_back(*pid);
  });
  return found;
}

std::optional<std::string> environmentValue(pid_t pid, std::string_view name) {
  std::optional<std::string> value;
  forEachPart(wholeEnvironment(pid), '\0', [&](std::string_view entry) {
    if (!value && entry.size() > name.size() && entry[name.size()] == '=' && entry.starts_with(name))
      value = entry.substr(name.size() + 1);
  });
  return value;
}

std::optional<ProcessStatus> processStatus(pid_t pid) {
  constexpr int kNameField = 2;  // numbers of proc(5)
  constexpr int kStateField = 3;
  constexpr int kStartField = 22;
  constexpr int kMemoryField = 23;
  constexpr int kEnvironmentBeginField = 50;
  constexpr int kEnvironmentEndField = 51;
  const std::string content = wholeFile(fileOf(pid, "stat"));
  const std::size_t nameEnd = content.rfind(')');  // the name may hold anything
  if (nameEnd == std::string::npos)
    return std::nullopt;
  ProcessStatus status;
  int field = kNameField;
  forEachPart(std::string_view(content).substr(nameEnd), ' ', [&](std::string_view part) {
    if (field == kStateField)
      status.hasEnded = part == "Z" || part == "X";
    const std::uint64_t number = numberIn<std::uint64_t>(part).value_or(0);
    if (field == kStartField)
      status.startTicks = number;
    if (field == kMemoryField)
      status.hasMemory = number != 0;
    if (field == kEnvironmentBeginField)
      status.environmentBegin = number;
    if (field == kEnvironmentEndField)
      status.environmentEnd = number;
    ++field;
  });
  return status;
}

std::uint64_t ticksNow() {
  static const auto ticksPerSecond = static_cast<std::uint64_t>(::sysconf(_SC_CLK_TCK));
  constexpr std::uint64_t kNanosecondsPerSecond = 1'000'000'000;
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * ticksPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec) / (kNanosecondsPerSecond / ticksPerSecond);
}

}  // namespace parallel::execution
