// Which uploads are under way: one call at a time brings a blob for a holder.
#pragma once

#include <set>
#include <utility>

#include "platform/threads/Mutex.h"
#include "scheduler/store/BlobStore.h"

namespace parallel::scheduler::methods {

// Threads: any.
class UploadClaims {
 public:
  using Upload = std::pair<store::Holder, store::Digest>;

  // Of one call; given back with the object.
  class Claim {
   public:
    // `UploadUnderWay` when another call has it.
    Claim(UploadClaims& claims, Upload upload);
    ~Claim();
    Claim(const Claim&) = delete;
    Claim& operator=(const Claim&) = delete;

   private:
    UploadClaims& claims_;
    const Upload upload_;
  };

 private:
  threads::Mutex mutex_;
  std::set<Upload> underWay_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::scheduler::methods
