// Blobs that tasks read, each kept once on this machine, in a folder under their names.
//
// When the quota is exceeded those go that were not used for longest; one that is in use stays, so the folder may be
// larger than the quota for a while. What is in the folder at the start is used again.
// Errors:  std::system_error; what a fetch throws passes through, and nothing is kept then.
// Threads: any. A blob that several ask for at once is fetched once.
// Units:   bytes.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "platform/digest/Sha256.h"
#include "platform/threads/Mutex.h"

namespace parallel::worker {

class InputCache {
 public:
  // The folder is made if it is not there.
  InputCache(std::filesystem::path folder, std::uint64_t quota);
  InputCache(const InputCache&) = delete;
  InputCache& operator=(const InputCache&) = delete;

  // Writes the whole blob, checked, to the path.
  using Fetch = std::function<void(const std::string& path)>;

  // While it lives, the file at path() stays. The cache must outlive it.
  class Use {
   public:
    ~Use() { cache_.release(digest_); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    std::filesystem::path path() const { return cache_.pathOf(digest_); }

   private:
    friend class InputCache;
    Use(InputCache& cache, const digest::Digest& digest) : cache_(cache), digest_(digest) {}
    InputCache& cache_;
    digest::Digest digest_;
  };
  std::unique_ptr<Use> use(const digest::Digest& digest, std::uint64_t nbytes, const Fetch& fetch);

  std::uint64_t nbytes() const;

 private:
  enum class State { Fetching, Here };
  struct Entry {
    State state = State::Fetching;
    std::uint64_t nbytes = 0;
    std::size_t users = 0;
    std::list<digest::Digest>::iterator place{};  // among the idle ones, when it is here and has no users
  };

  std::filesystem::path pathOf(const digest::Digest& digest) const { return folder_ / digest.text(); }
  void adoptFolder();
  void release(const digest::Digest& digest);
  void makeRoom() ZKS_REQUIRES(mutex_);

  const std::filesystem::path folder_;
  const std::uint64_t quota_;
  mutable threads::Mutex mutex_;
  threads::ConditionVariable changed_;
  std::map<digest::Digest, Entry> entries_ ZKS_GUARDED_BY(mutex_);
  std::list<digest::Digest> idle_ ZKS_GUARDED_BY(mutex_);  // the one that waits longest in front
  std::uint64_t nbytes_ ZKS_GUARDED_BY(mutex_) = 0;
};

// A file with the same bytes, which is the task's own: blocks are shared where the file system can do so.
// std::system_error names the files.
void placeCopy(const std::filesystem::path& from, const std::filesystem::path& to, mode_t permissions);

}  // namespace parallel::worker
