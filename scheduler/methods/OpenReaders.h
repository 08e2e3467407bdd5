// Readers of blobs, kept where they stopped: who reads a large blob piece by piece, a call for each, does not read it from its
// beginning each time.
#pragma once

#include <cstdint>
#include <list>
#include <memory>

#include "platform/threads/Mutex.h"
#include "scheduler/store/BlobStore.h"

namespace parallel::scheduler::methods {

// Ownership: borrows the store of blobs.
// Threads:   any.
class OpenReaders {
 public:
  static constexpr std::size_t kMost = 16;

  explicit OpenReaders(store::BlobStore& blobs) : blobs_(blobs) {}

  // The bytes from the offset on, `most` of them unless the end comes first. Errors: those of BlobStore::open() and
  // BlobReader::read().
  std::string read(const store::Digest& digest, std::uint64_t offset, std::size_t most, store::WallTime now);

 private:
  struct Entry {
    store::Digest digest;
    std::uint64_t position = 0;
    std::unique_ptr<store::BlobReader> reader;
  };

  std::unique_ptr<store::BlobReader> take(const store::Digest& digest, std::uint64_t position);
  void keep(Entry entry);

  store::BlobStore& blobs_;
  threads::Mutex mutex_;
  std::list<Entry> entries_ ZKS_GUARDED_BY(mutex_);  // the last used in front
};

}  // namespace parallel::scheduler::methods
