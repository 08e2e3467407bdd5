#include "python/bridge/OrderedReply.h"

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <system_error>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/files/nativePath.h"
#include "platform/interrupt/utInterruptState.h"
#include "toolbox/AtomicFile.h"
#include "transport/streams/ByteVectorByteStream.h"

namespace zks::bridge {

using parallel::spf::transport::ByteVectorByteStream;
using parallel::toolbox::Reply;

namespace {

[[noreturn]] void throwSystemError(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A file without a name, in memory.
class MemoryFile {
 public:
  MemoryFile() : descriptor_(::memfd_create("zks-reply-item", MFD_CLOEXEC)) {
    if (descriptor_ < 0)
      throwSystemError("no memory file can be made");
  }
  ~MemoryFile() { ::close(descriptor_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  std::vector<std::byte> contents() const {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0)
      throwSystemError("a memory file has no size");
    std::vector<std::byte> bytes(static_cast<std::size_t>(status.st_size));
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t got = ::pread(descriptor_, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
      if (got < 0 && errno == EINTR)
        continue;
      if (got <= 0)
        throwSystemError("a memory file cannot be read");
      done += static_cast<std::size_t>(got);
    }
    return bytes;
  }

 private:
  int descriptor_;
};

bool isDevice(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}

tova::factory::qxArrayProxy resultOf(const qxArray* payload) {
  const qxArray* const result = qxHasField(payload, "result") ? qxGetField(payload, 0, "result") : nullptr;
  if (result == nullptr)
    throw Exception<parallel::cluster::DeserializeProtobufError>();
  return tova::factory::qxArrayProxy(qxCreateSharedCopy(result));
}

}  // namespace

OrderedReply::OrderedReply(Reply reply)
    : first_(reply.itemsTaken()), reply_(std::move(reply)), states_(reply_->itemCount() - first_) {}

Reply& OrderedReply::stream() {
  if (!reply_)
    throw Exception<parallel::cluster::ZKSUnreachable>();
  return *reply_;
}

void OrderedReply::bufferNext() {
  const std::size_t index = stream().itemsTaken() - first_;
  const MemoryFile file;
  states_[index].taken = true;  // if it fails half-way it cannot be read again
  stream().takeFile(file.path());
  states_[index].taken = false;
  states_[index].buffered = std::make_shared<Data>(std::make_shared<ByteVectorByteStream>(file.contents()));
}

// Whoever has the lock may be waiting for the service.
std::unique_lock<std::timed_mutex> OrderedReply::lockInterruptibly() {
  constexpr std::chrono::milliseconds kPollInterval{50};
  std::unique_lock lock(mutex_, std::defer_lock);
  while (!lock.try_lock_for(kPollInterval))
    utInterruptState::ThrowIfInterruptPending();
  return lock;
}

qxArrayPtr OrderedReply::takeLocked(std::size_t index, const std::function<Proxy(Reply&)>& fromReply,
                                    const std::function<Proxy(Data&)>& fromBuffer) {
  const auto lock = lockInterruptibly();
  Item& item = states_.at(index);
  if (item.taken)
    throw Exception<parallel::python::ItemAlreadyRead>(first_ + index + 1);
  while (item.buffered == nullptr && stream().itemsTaken() - first_ < index)
    bufferNext();
  item.taken = true;
  const std::shared_ptr<Data> buffered = std::exchange(item.buffered, nullptr);
  return (buffered == nullptr ? fromReply(stream()) : fromBuffer(*buffered)).release();
}

qxArrayPtr OrderedReply::take(std::size_t index, const std::function<Proxy(Reply&)>& fromReply,
                              const std::function<Proxy(Data&)>& fromBuffer) {
  try {
    qxArrayPtr array = takeLocked(index, fromReply, fromBuffer);
    dropIfAbandoned();
    return array;
  } catch (...) {
    dropIfAbandoned();
    throw;
  }
}

// Called after the mark was set and after each taking: whichever comes last finds the mutex free.
void OrderedReply::dropIfAbandoned() noexcept {
  if (!abandoned_.load())
    return;
  const std::unique_lock lock(mutex_, std::try_to_lock);
  if (lock.owns_lock())
    reply_.reset();
}

void OrderedReply::abandon() noexcept {
  abandoned_.store(true);
  dropIfAbandoned();
}

qxArrayPtr OrderedReply::takeArray(std::size_t index) {
  return take(
      index, [](Reply& reply) { return reply.takeArray(); },
      [](Data& data) { return data.deserializeQxArray(Proxy()); });
}

qxArrayPtr OrderedReply::takeMessage(std::size_t index) {
  return take(
      index, [](Reply& reply) { return reply.takeMessage(); },
      [](Data& data) { return resultOf(data.deserializeProtobuf().get()); });
}

qxArrayPtr OrderedReply::takePlain(std::size_t index) {
  return take(
      index, [](Reply& reply) { return reply.takePlain(); }, [](Data& data) { return data.deserializePlain(); });
}

void OrderedReply::takeFile(std::size_t index, const std::string& path) {
  if (isDevice(path))
    return takeInto(index, path);
  parallel::toolbox::AtomicFile file(path);
  file.write([&](const std::string& temporary) { takeInto(index, temporary); });
  file.commit();
}

void OrderedReply::takeInto(std::size_t index, const std::string& path) {
  take(
      index,
      [&](Reply& reply) {
        reply.takeFile(path);
        return Proxy();
      },
      [&](Data& data) {
        data.deserializeToFile(files::hostPath(path));
        return Proxy();
      });
}

}  // namespace zks::bridge
