#include "scheduler/methods/RunningOutput.h"

#include <algorithm>
#include <limits>

namespace parallel::scheduler::methods {

using threads::MutexLock;

std::string RunningOutput::read(const Key& stream, std::uint64_t offset, std::size_t most) {
  const MutexLock lock(mutex_);
  Window& window = windows_[stream];
  window.lastRead = Clock::now();
  if (offset < window.begin || offset > window.end())
    window = {offset, "", window.lastRead};
  // What is before the reader is not read again, as a rule.
  const auto passed = static_cast<std::size_t>(offset - window.begin);
  window.bytes.erase(0, passed);
  window.begin = offset;
  std::string found = window.bytes.substr(0, most);
  forgetUnread();
  return found;
}

bool RunningOutput::add(const Key& stream, std::uint64_t offset, std::string_view content) {
  const MutexLock lock(mutex_);
  const auto found = windows_.find(stream);
  if (found == windows_.end())
    return false;
  Window& window = found->second;
  if (offset > window.end() || content.size() <= window.end() - offset)
    return false;
  content.remove_prefix(static_cast<std::size_t>(window.end() - offset));
  const std::size_t room = kMostOfStream - std::min(window.bytes.size(), kMostOfStream);
  window.bytes += content.substr(0, room);
  return room > 0;
}

std::vector<RunningOutput::Wanted> RunningOutput::wanted(const std::vector<ledger::AttemptKey>& attempts) {
  const MutexLock lock(mutex_);
  std::vector<Wanted> wanted;
  if (windows_.empty())
    return wanted;
  forgetUnread();
  for (const ledger::AttemptKey& attempt : attempts) {
    for (auto next = windows_.lower_bound({attempt, std::numeric_limits<int>::min()});
         next != windows_.end() && next->first.first == attempt; ++next) {
      if (next->second.bytes.size() < kMostOfStream)
        wanted.push_back({next->first, next->second.end()});
    }
  }
  return wanted;
}

void RunningOutput::drop(const ledger::AttemptKey& attempt) {
  const MutexLock lock(mutex_);
  windows_.erase(windows_.lower_bound({attempt, std::numeric_limits<int>::min()}),
                 windows_.upper_bound({attempt, std::numeric_limits<int>::max()}));
}

void RunningOutput::forgetUnread() {
  const auto now = Clock::now();
  std::erase_if(windows_, [&](const auto& entry) { return now - entry.second.lastRead > kKeptUnread; });
  while (windows_.size() > kMostStreams)
    windows_.erase(std::min_element(windows_.begin(), windows_.end(), [](const auto& one, const auto& other) {
      return one.second.lastRead < other.second.lastRead;
    }));
}

}  // namespace parallel::scheduler::methods
