#include "scheduler/store/Quota.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <limits>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace parallel::scheduler::store {

using threads::MutexLock;

namespace {

constexpr std::uint64_t kNoLimit = std::numeric_limits<std::uint64_t>::max();
constexpr double kNoSubmissionsFrom = 0.90;
constexpr double kNoGrantsFrom = 0.95;

double share(std::uint64_t used, std::uint64_t capacity) {
  return capacity == 0 ? 1 : static_cast<double>(used) / static_cast<double>(capacity);
}

std::uint64_t saturatedSum(std::uint64_t a, std::uint64_t b) {
  return a > kNoLimit - b ? kNoLimit : a + b;
}

}  // namespace

Quota::Quota(std::filesystem::path folder, const Limits& limits) : folder_(std::move(folder)), limits_(limits) {}

Quota::Use Quota::used() const {
  const MutexLock lock(mutex_);
  return used_;
}

Quota::Use Quota::capacity(const Use& used) const {
  Use capacity{limits_.bytes.value_or(kNoLimit), limits_.files.value_or(kNoLimit)};
  struct statvfs disk {};
  if (::statvfs(folder_.c_str(), &disk) != 0)
    return capacity;
  capacity.bytes = std::min(capacity.bytes, saturatedSum(used.bytes, std::uint64_t{disk.f_bavail} * disk.f_frsize));
  if (disk.f_files != 0)  // some file systems count none
    capacity.files = std::min(capacity.files, saturatedSum(used.files, disk.f_favail));
  return capacity;
}

Room Quota::room() const {
  const Use used = this->used();
  const Use most = capacity(used);
  const double taken = std::max(share(used.bytes, most.bytes), share(used.files, most.files));
  if (taken >= 1)
    return Room::none;
  if (taken >= kNoGrantsFrom)
    return Room::noGrants;
  return taken >= kNoSubmissionsFrom ? Room::noSubmissions : Room::plenty;
}

std::string Quota::text() const {
  const Use used = this->used();
  const Use most = capacity(used);
  return std::to_string(used.bytes) + " of " + std::to_string(most.bytes) + " bytes and " + std::to_string(used.files) +
         " of " + std::to_string(most.files) + " files are used";
}

void Quota::take(const Use& more) {
  {
    const MutexLock lock(mutex_);
    const Use most = capacity(used_);
    if (saturatedSum(used_.bytes, more.bytes) <= most.bytes && saturatedSum(used_.files, more.files) <= most.files) {
      used_.bytes += more.bytes;
      used_.files += more.files;
      return;
    }
  }
  throw Exception<parallel::store::QuotaExceeded>(folder_.string(), text());
}

void Quota::note(const Use& more) {
  const MutexLock lock(mutex_);
  used_.bytes += more.bytes;
  used_.files += more.files;
}

void Quota::give(const Use& back) {
  const MutexLock lock(mutex_);
  used_.bytes -= std::min(used_.bytes, back.bytes);
  used_.files -= std::min(used_.files, back.files);
}

}  // namespace parallel::scheduler::store
