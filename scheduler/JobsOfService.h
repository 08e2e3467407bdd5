// The methods of kept jobs, made when they are needed: a program that never calls one pays for none, and several services
// of a user that do not use their store do not meet there.
#pragma once

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "platform/threads/Mutex.h"
#include "scheduler/calls/DescriptionLimit.h"
#include "scheduler/methods/JobMethods.h"

namespace parallel::scheduler {

// Ownership: removes a store that it has made for itself.
// Threads:   any.
class JobsOfService {
 public:
  struct Options {
    std::filesystem::path store{};  // empty: one of its own
    bool opensStoreAtOnce = false;
    std::filesystem::path temporary{};  // where one of its own is made
    std::function<void(const std::string& reason)> storeFailed{};
    DescriptionLimit descriptionLimit{};
    std::string version{};
    std::shared_ptr<std::atomic<bool>> wantsWorker{};  // as of methods::JobMethods
  };

  // Errors: those of methods::JobMethods, where the store is opened at once.
  explicit JobsOfService(Options options);
  ~JobsOfService();
  JobsOfService(const JobsOfService&) = delete;
  JobsOfService& operator=(const JobsOfService&) = delete;

  // Errors: those of methods::JobMethods, std::system_error; the next call tries again.
  methods::JobMethods& get();

 private:
  void make() ZKS_REQUIRES(mutex_);

  const Options options_;
  threads::Mutex mutex_;
  std::filesystem::path own_ ZKS_GUARDED_BY(mutex_);
  std::unique_ptr<methods::JobMethods> methods_ ZKS_GUARDED_BY(mutex_);
};

}  // namespace parallel::scheduler
