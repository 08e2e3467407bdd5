#include "execution/AttemptMark.h"

#include <unistd.h>
#include <csignal>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "execution/procFiles.h"

namespace parallel::execution {

namespace {

// "4026531836"
std::string namespaceOfProcessNumbers() {
  std::error_code error;
  const std::string link = std::filesystem::read_symlink("/proc/self/ns/pid", error).string();  // "pid:[4026531836]"
  const std::size_t first = link.find_first_of("0123456789");
  return first == std::string::npos ? "0" : link.substr(first, link.find_last_of("0123456789") + 1 - first);
}

}  // namespace

AttemptMark AttemptMark::make() {
  static std::atomic<unsigned long> count{0};
  const std::string space = namespaceOfProcessNumbers();
  const pid_t self = ::getpid();
  const std::uint64_t start = processStatus(self).value_or(ProcessStatus{}).startTicks;
  const std::string owner = space + "." + std::to_string(self) + "." + std::to_string(start);
  return {owner + "." + std::to_string(++count), space, self, start};
}

std::optional<AttemptMark> AttemptMark::ofProcess(pid_t pid) {
  std::optional<std::string> text = environmentValue(pid, kVariable);
  return text ? parse(std::move(*text)) : std::nullopt;
}

std::optional<AttemptMark> AttemptMark::parse(std::string text) {
  if (text.find_first_not_of("0123456789.") != std::string::npos)
    return std::nullopt;
  std::array<unsigned long, 4> numbers{};
  int parsed = 0;
  const int count = std::sscanf(text.c_str(), "%20lu.%9lu.%20lu.%20lu%n", &numbers[0], &numbers[1], &numbers[2],
                                &numbers[3], &parsed);
  if (count != static_cast<int>(numbers.size()) || static_cast<std::size_t>(parsed) != text.size())
    return std::nullopt;
  return AttemptMark(std::move(text), std::to_string(numbers[0]), static_cast<pid_t>(numbers[1]), numbers[2]);
}

bool AttemptMark::isOurs() const {
  return owner_ == ::getpid() && space_ == namespaceOfProcessNumbers() && !isOfTheDead();
}

bool AttemptMark::isOfTheDead() const {
  if (space_ != namespaceOfProcessNumbers())
    return false;
  if (::kill(owner_, 0) != 0 && errno == ESRCH)
    return true;
  const std::optional<ProcessStatus> owner = processStatus(owner_);
  return owner && (owner->hasEnded || owner->startTicks != ownerStart_);
}

}  // namespace parallel::execution
