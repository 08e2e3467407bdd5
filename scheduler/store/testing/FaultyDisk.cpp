#include "scheduler/store/testing/FaultyDisk.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <ios>
#include <sstream>

namespace parallel::scheduler::store::testing {

namespace fs = std::filesystem;

namespace {

std::string contentOf(const fs::path& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

void putContent(const fs::path& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

}  // namespace

void FaultyDisk::failAt(std::uint64_t step, Fault fault) {
  const std::scoped_lock lock(mutex_);
  steps_ = 0;
  failAt_ = step;
  fault_ = fault;
}

void FaultyDisk::neverFail() {
  failAt(0, Fault::once);
}

std::uint64_t FaultyDisk::steps() const {
  const std::scoped_lock lock(mutex_);
  return steps_;
}

bool FaultyDisk::hasFailed() const {
  const std::scoped_lock lock(mutex_);
  return failAt_ != 0 && steps_ >= failAt_;
}

int FaultyDisk::step() {
  const std::scoped_lock lock(mutex_);
  ++steps_;
  if (failAt_ == 0 || steps_ < failAt_ || (fault_ == Fault::once && steps_ > failAt_))
    return 0;
  return fault_ == Fault::full ? ENOSPC : EIO;
}

void FaultyDisk::willChange(const fs::path& path) {
  const std::scoped_lock lock(mutex_);
  if (!files_.contains(path))
    files_[path].durable = fs::exists(path) ? std::optional(contentOf(path)) : std::nullopt;
}

void FaultyDisk::written(const fs::path& path, std::uint64_t offset, std::string_view bytes) {
  const std::scoped_lock lock(mutex_);
  files_[path].changes.push_back({offset, std::string(bytes)});
}

void FaultyDisk::truncated(const fs::path& path, std::uint64_t nbytes) {
  const std::scoped_lock lock(mutex_);
  files_[path].changes.push_back({nbytes, std::nullopt});
}

void FaultyDisk::synced(const fs::path& path) {
  const std::scoped_lock lock(mutex_);
  files_[path] = {contentOf(path), {}};
}

void FaultyDisk::renamed(const fs::path& from, const fs::path& to) {
  const std::scoped_lock lock(mutex_);
  auto moved = files_.extract(from);
  files_.erase(to);
  if (!moved.empty()) {
    moved.key() = to;
    files_.insert(std::move(moved));
  }
  renames_.push_back({from, to});
}

void FaultyDisk::removed(const fs::path& path) {
  const std::scoped_lock lock(mutex_);
  files_.erase(path);
  std::erase_if(renames_, [&](const Rename& rename) { return rename.to == path; });
}

void FaultyDisk::folderSynced(const fs::path& folder) {
  const std::scoped_lock lock(mutex_);
  std::erase_if(renames_, [&](const Rename& rename) { return rename.to.parent_path() == folder; });
}

void FaultyDisk::forget() {
  const std::scoped_lock lock(mutex_);
  for (auto& [path, file] : files_) {
    if (!fs::exists(path) || file.changes.empty())
      continue;
    if (!file.durable && chance()) {
      fs::remove(path);
      continue;
    }
    std::string content = file.durable.value_or("");
    for (const Change& change : file.changes) {
      if (chance())
        continue;
      if (!change.bytes)
        content.resize(change.offset);
      else if (change.offset + change.bytes->size() > content.size())
        content.resize(change.offset + change.bytes->size());
      if (change.bytes)
        std::copy(change.bytes->begin(), change.bytes->end(),
                  content.begin() + static_cast<std::ptrdiff_t>(change.offset));
    }
    putContent(path, content);
  }
  for (auto rename = renames_.rbegin(); rename != renames_.rend(); ++rename) {
    if (chance() && fs::exists(rename->to))
      fs::rename(rename->to, rename->from);
  }
  files_.clear();
  renames_.clear();
}

}  // namespace parallel::scheduler::store::testing
