// The items of one reply, in any order.
//
// On the stream they come one after another. Taking one before those in front of it reads these into memory first, as
// they are, to be taken later. Each item is taken once.
//
// Errors:  `ItemAlreadyRead`; `ZKSUnreachable` after abandon(); as toolbox::Reply, causes nested.
// Threads: any; one at a time takes, others wait, until an interrupt at most. Without the interpreter's lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "python/bridge/counters.h"
#include "toolbox/Reply.h"
#include "transport/data/DeserializableData.h"

namespace zks::bridge {

class OrderedReply {
 public:
  explicit OrderedReply(parallel::toolbox::Reply reply);

  std::size_t itemCount() const noexcept { return states_.size(); }

  // `index` counts from 0 among the items that were left when this was made.
  qxArrayPtr takeArray(std::size_t index);
  qxArrayPtr takeMessage(std::size_t index);
  qxArrayPtr takePlain(std::size_t index);
  // The file appears when it is whole; what is no file, a device or a pipe, is written to. `CannotWriteFile` and
  // `CannotWriteIntoDirectory` leave the item untaken when they come before its first byte.
  void takeFile(std::size_t index, const std::string& path);

  // Lets go of the stream, at once or when the item that is being read ends. Items that are in memory already stay.
  void abandon() noexcept;

 private:
  using Data = parallel::spf::transport::DeserializableData;
  using Proxy = tova::factory::qxArrayProxy;
  struct Item {
    bool taken = false;
    std::shared_ptr<Data> buffered;  // when it was read before its turn
  };

  void takeInto(std::size_t index, const std::string& path);
  qxArrayPtr take(std::size_t index, const std::function<Proxy(parallel::toolbox::Reply&)>& fromReply,
                  const std::function<Proxy(Data&)>& fromBuffer);
  std::unique_lock<std::timed_mutex> lockInterruptibly();
  qxArrayPtr takeLocked(std::size_t index, const std::function<Proxy(parallel::toolbox::Reply&)>& fromReply,
                        const std::function<Proxy(Data&)>& fromBuffer);
  void bufferNext();
  parallel::toolbox::Reply& stream();
  void dropIfAbandoned() noexcept;

  const std::size_t first_;  // how many of the call's items had been taken before
  std::atomic<bool> abandoned_{false};
  std::timed_mutex mutex_;
  std::optional<parallel::toolbox::Reply> reply_;  // guarded by mutex_; nothing once it is abandoned
  std::vector<Item> states_;                       // the items guarded by mutex_
  Counted counted_{counters().replies};
};

}  // namespace zks::bridge
