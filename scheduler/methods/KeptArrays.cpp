#include "scheduler/methods/KeptArrays.h"

#include <algorithm>

namespace parallel::scheduler::methods {

using threads::MutexLock;

std::int64_t KeptArray::indexOf(ledger::TaskNumber task) const {
  const std::int64_t step = message.index_step() == 0 ? 1 : message.index_step();
  return message.first_index() + static_cast<std::int64_t>(task - first) * step;
}

std::string contentOf(store::BlobStore& blobs, const store::Digest& digest, store::WallTime now) {
  constexpr std::size_t kPieceBytes = std::size_t{1} << 20;
  const auto reader = blobs.open(digest, now);
  std::string content;
  for (std::string piece = reader->read(kPieceBytes); !piece.empty(); piece = reader->read(kPieceBytes))
    content += piece;
  return content;
}

std::shared_ptr<const KeptArray> KeptArrays::find(ledger::TaskKey task, store::WallTime now) {
  if (auto kept = findKept(task))
    return kept;
  const auto row = store_.ledger().read([&](store::LedgerTables& tables) { return tables.arrayOf(task); });
  auto array = std::make_shared<KeptArray>();
  if (!row || !array->message.ParseFromString(row->details))
    return nullptr;
  array->first = row->tasks.first;
  if (array->message.has_lines()) {
    if (const auto digest = store::Digest::fromBytes(array->message.lines().sha256()))
      array->lines.emplace(contentOf(store_.blobs(), *digest, now));
  }
  const std::uint64_t nbytes = row->details.size() + (array->lines ? array->lines->nbytes() : 0);
  add({{row->job, row->tasks.first}, row->tasks.last, nbytes, array});
  return array;
}

std::shared_ptr<const KeptArray> KeptArrays::findKept(ledger::TaskKey task) {
  const MutexLock lock(mutex_);
  auto after = byFirst_.upper_bound(task);
  if (after == byFirst_.begin())
    return nullptr;
  const Entries::iterator found = std::prev(after)->second;
  if (found->first.job != task.job || task.task > found->last)
    return nullptr;
  entries_.splice(entries_.begin(), entries_, found);
  return found->array;
}

void KeptArrays::add(Entry entry) {
  constexpr std::uint64_t kMostBytes = std::uint64_t{256} << 20;
  const MutexLock lock(mutex_);
  if (byFirst_.contains(entry.first))  // somebody else has read it meanwhile
    return;
  nbytes_ += entry.nbytes;
  entries_.push_front(std::move(entry));
  byFirst_[entries_.front().first] = entries_.begin();
  while (nbytes_ > kMostBytes && entries_.size() > 1) {
    nbytes_ -= entries_.back().nbytes;
    byFirst_.erase(entries_.back().first);
    entries_.pop_back();
  }
}

}  // namespace parallel::scheduler::methods
