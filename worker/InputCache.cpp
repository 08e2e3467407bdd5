#include "worker/InputCache.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "platform/errors/systemError.h"
#include "platform/files/UniqueFd.h"

namespace parallel::worker {

using digest::Digest;
using ::errors::throwSystemError;
using threads::MutexLock;
namespace fs = std::filesystem;

InputCache::InputCache(fs::path folder, std::uint64_t quota) : folder_(std::move(folder)), quota_(quota) {
  fs::create_directories(folder_);
  adoptFolder();
}

void InputCache::adoptFolder() {
  const MutexLock lock(mutex_);
  for (const fs::directory_entry& file : fs::directory_iterator(folder_)) {
    const auto digest = Digest::fromText(file.path().filename().string());
    if (!digest || !file.is_regular_file())
      continue;
    Entry entry{State::Here, file.file_size(), 0, {}};
    entry.place = idle_.insert(idle_.end(), *digest);
    nbytes_ += entry.nbytes;
    entries_.emplace(*digest, entry);
  }
  makeRoom();
}

std::unique_ptr<InputCache::Use> InputCache::use(const Digest& digest, std::uint64_t nbytes, const Fetch& fetch) {
  {
    MutexLock lock(mutex_);
    for (;;) {
      const auto found = entries_.find(digest);
      if (found == entries_.end())
        break;
      Entry& entry = found->second;
      if (entry.state == State::Fetching) {
        changed_.wait(lock);
        continue;
      }
      if (entry.users++ == 0)
        idle_.erase(entry.place);
      return std::unique_ptr<Use>(new Use(*this, digest));
    }
    entries_.emplace(digest, Entry{State::Fetching, nbytes, 1, {}});
    nbytes_ += nbytes;
    makeRoom();
  }
  try {
    fetch(pathOf(digest).string());
  } catch (...) {
    const MutexLock lock(mutex_);
    nbytes_ -= nbytes;
    entries_.erase(digest);
    changed_.notifyAll();
    throw;
  }
  const MutexLock lock(mutex_);
  entries_.at(digest).state = State::Here;
  changed_.notifyAll();
  return std::unique_ptr<Use>(new Use(*this, digest));
}

std::uint64_t InputCache::nbytes() const {
  const MutexLock lock(mutex_);
  return nbytes_;
}

void InputCache::release(const Digest& digest) {
  const MutexLock lock(mutex_);
  Entry& entry = entries_.at(digest);
  if (--entry.users == 0)
    entry.place = idle_.insert(idle_.end(), digest);
  makeRoom();
}

void InputCache::makeRoom() {
  while (nbytes_ > quota_ && !idle_.empty()) {
    const Digest digest = idle_.front();
    idle_.pop_front();
    nbytes_ -= entries_.at(digest).nbytes;
    entries_.erase(digest);
    std::error_code ignored;  // what cannot be removed is found again at the next start
    fs::remove(pathOf(digest), ignored);
  }
}

void placeCopy(const fs::path& from, const fs::path& to, mode_t permissions) {
  const files::UniqueFd source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source)
    throwSystemError("Opening \"" + from.string() + "\"");
  const files::UniqueFd target(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, permissions));
  if (!target)
    throwSystemError("Making \"" + to.string() + "\"");
  if (::ioctl(target.get(), FICLONE, source.get()) == 0)
    return;
  constexpr std::size_t kPiece = std::size_t{1} << 30U;
  for (;;) {
    const ssize_t copied = ::sendfile(target.get(), source.get(), nullptr, kPiece);
    if (copied == 0)
      return;
    if (copied < 0 && errno != EINTR)
      throwSystemError("Copying \"" + from.string() + "\" to \"" + to.string() + "\"");
  }
}

}  // namespace parallel::worker
