#include "execution/FilePool.h"

#include <fcntl.h>

#include <utility>

#include "platform/errors/systemError.h"

namespace parallel::execution {

using files::UniqueFd;
using threads::MutexLock;

FilePool::File::File(FilePool& pool, std::filesystem::path path, int flags, std::string what)
    : pool_(pool), path_(std::move(path)), flags_(flags), what_(std::move(what)), self_{this}, place_(self_.begin()) {}

FilePool::File::~File() {
  const MutexLock lock(pool_.mutex_);
  if (!fd_)
    return;
  pool_.idle_.erase(place_);
  ++pool_.free_;
  pool_.changed_.notifyOne();
}

void FilePool::File::use(const std::function<void(int fd)>& action) {
  pool_.borrow(*this);
  struct GiveBack {
    File& file;
    ~GiveBack() { file.pool_.giveBack(file); }
  };
  const GiveBack atEnd{*this};
  if (!fd_)
    fd_ = UniqueFd(::open(path_.c_str(), flags_ | O_CLOEXEC));
  if (!fd_)
    errors::throwSystemError("Opening " + what_);
  action(fd_.get());
}

void FilePool::borrow(File& file) {
  UniqueFd taken;  // closed after the lock
  MutexLock lock(mutex_);
  if (file.fd_) {
    file.self_.splice(file.self_.begin(), idle_, file.place_);
    return;
  }
  changed_.wait(lock, [this]() ZKS_REQUIRES(mutex_) { return free_ > 0 || !idle_.empty(); });
  if (free_ > 0) {
    --free_;
    return;
  }
  File& oldest = *idle_.front();
  taken = std::exchange(oldest.fd_, UniqueFd());
  oldest.self_.splice(oldest.self_.begin(), idle_, oldest.place_);
}

void FilePool::giveBack(File& file) noexcept {
  const MutexLock lock(mutex_);
  if (file.fd_)
    idle_.splice(idle_.end(), file.self_, file.place_);
  else
    ++free_;
  changed_.notifyOne();
}

}  // namespace parallel::execution
