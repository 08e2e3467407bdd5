// The task arrays of the books as messages, with their lines: read when they are first granted, and kept while they are used.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "platform/threads/Mutex.h"
#include "platform/zksmessages/jobs.pb.h"
#include "scheduler/ledger/Changes.h"
#include "scheduler/methods/Lines.h"
#include "scheduler/store/Store.h"

namespace parallel::scheduler::methods {

struct KeptArray {
  ledger::TaskNumber first = 0;
  zksmessages::TaskArray message;
  std::optional<Lines> lines;

  std::int64_t indexOf(ledger::TaskNumber task) const;
};

// All of a blob, in memory.
std::string contentOf(store::BlobStore& blobs, const store::Digest& digest, store::WallTime now);

// Ownership: borrows the store.
// Threads:   any. Reads the store, and waits for it.
class KeptArrays {
 public:
  explicit KeptArrays(store::Store& store) : store_(store) {}

  // The array of that task; null: it is not in the books.
  std::shared_ptr<const KeptArray> find(ledger::TaskKey task, store::WallTime now);

 private:
  // By the first task.
  struct Entry {
    ledger::TaskKey first;
    ledger::TaskNumber last = 0;
    std::uint64_t nbytes = 0;
    std::shared_ptr<const KeptArray> array;
  };
  using Entries = std::list<Entry>;  // the last used in front

  std::shared_ptr<const KeptArray> findKept(ledger::TaskKey task);
  void add(Entry entry);

  store::Store& store_;
  threads::Mutex mutex_;
  Entries entries_ ZKS_GUARDED_BY(mutex_);
  std::map<ledger::TaskKey, Entries::iterator> byFirst_ ZKS_GUARDED_BY(mutex_);
  std::uint64_t nbytes_ ZKS_GUARDED_BY(mutex_) = 0;
};

}  // namespace parallel::scheduler::methods
