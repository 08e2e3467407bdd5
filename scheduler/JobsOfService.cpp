#include "scheduler/JobsOfService.h"

#include <cerrno>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace parallel::scheduler {

using threads::MutexLock;
namespace fs = std::filesystem;

namespace {

fs::path makeFolderIn(const fs::path& parent) {
  std::string name = (parent / "zks-store-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr)
    throw std::system_error(errno, std::generic_category(), "The store \"" + name + "\" cannot be made");
  return name;
}

}  // namespace

JobsOfService::JobsOfService(Options options) : options_(std::move(options)) {
  if (options_.opensStoreAtOnce)
    get();
}

JobsOfService::~JobsOfService() {
  const MutexLock lock(mutex_);
  methods_.reset();
  std::error_code ignored;
  if (!own_.empty())
    fs::remove_all(own_, ignored);
}

methods::JobMethods& JobsOfService::get() {
  const MutexLock lock(mutex_);
  if (methods_ == nullptr)
    make();
  return *methods_;
}

void JobsOfService::make() {
  methods::BookKeeper::Options keeper;
  keeper.folder = options_.store;
  keeper.store.failed = options_.storeFailed;
  if (options_.store.empty()) {
    if (own_.empty())
      own_ = makeFolderIn(options_.temporary);
    keeper.folder = own_;
    keeper.store.isDurable = false;
    keeper.store.reserveBytes = 0;
  } else {
    fs::create_directories(options_.store.parent_path());
  }
  methods_ = std::make_unique<methods::JobMethods>(methods::JobMethods::Options{
      std::move(keeper), options_.descriptionLimit, options_.version, options_.wantsWorker});
}

}  // namespace parallel::scheduler
