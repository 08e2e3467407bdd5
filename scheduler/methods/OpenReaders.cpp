#include "scheduler/methods/OpenReaders.h"

#include <algorithm>
#include <utility>

namespace parallel::scheduler::methods {

using threads::MutexLock;

std::string OpenReaders::read(const store::Digest& digest, std::uint64_t offset, std::size_t most,
                              store::WallTime now) {
  auto reader = take(digest, offset);
  if (reader == nullptr) {
    reader = blobs_.open(digest, now);
    reader->skipTo(offset);
  }
  std::string bytes = reader->read(most);
  if (const std::uint64_t position = offset + bytes.size(); position < reader->nbytes())
    keep({digest, position, std::move(reader)});
  return bytes;
}

std::unique_ptr<store::BlobReader> OpenReaders::take(const store::Digest& digest, std::uint64_t position) {
  const MutexLock lock(mutex_);
  const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) {
    return entry.digest == digest && entry.position == position;
  });
  if (found == entries_.end())
    return nullptr;
  auto reader = std::move(found->reader);
  entries_.erase(found);
  return reader;
}

void OpenReaders::keep(Entry entry) {
  std::list<Entry> dropped;  // closed outside the lock
  const MutexLock lock(mutex_);
  entries_.push_front(std::move(entry));
  if (entries_.size() > kMost)
    dropped.splice(dropped.end(), entries_, std::prev(entries_.end()));
}

}  // namespace parallel::scheduler::methods
