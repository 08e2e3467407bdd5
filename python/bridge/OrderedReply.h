// The items of one reply, in any order.
//
// On the stream they come one after another. Taking one before those in front of it reads these into memory first, as
// they are, to be taken later. Each item is taken once.
//
// Errors:  `ItemAlreadyRead`; `SessionClosed` after abandon(); as toolbox::Reply, causes nested.
// Threads: any; one at a time takes, others wait, until an interrupt at most. Without the interpreter's lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "python/bridge/InterruptibleMutex.h"
#include "python/bridge/counters.h"
#include "toolbox/Reply.h"
#include "toolbox/ReplyItem.h"

namespace zks::bridge {

class OrderedReply {
 public:
  // `service`: the other end of the session, for messages.
  OrderedReply(parallel::toolbox::Reply reply, std::string service);

  std::size_t itemCount() const noexcept { return count_; }

  // `index` counts from 0 among the items that were left when this was made.
  qxArrayPtr takeArray(std::size_t index);
  qxArrayPtr takeMessage(std::size_t index);
  void takePlain(std::size_t index, const parallel::toolbox::PlainMemory& memory);
  // The bytes of an item of any kind, as they are: the content of a file.
  std::vector<std::byte> takeContent(std::size_t index);
  // The file appears when it is whole; what is no file, a device or a pipe, is written to. `CannotWriteFile` and
  // `CannotWriteIntoDirectory` leave the item untaken when they come before its first byte.
  void takeFile(std::size_t index, const std::string& path, parallel::toolbox::FileKind kind);

  // Lets go of the stream, at once or when the item that is being read ends. Items that are in memory already stay.
  void abandon() noexcept;

 private:
  struct Item {
    bool taken = false;
    std::unique_ptr<parallel::toolbox::ReplyItem> buffered;  // when it was read before its turn
  };

  // `operation` takes the item from what it is given, a Reply or a ReplyItem.
  template <class Operation>
  auto take(std::size_t index, Operation operation);
  template <class Operation>
  auto takeLocked(std::size_t index, Operation operation);
  void bufferNext() ZKS_REQUIRES(mutex_);
  parallel::toolbox::Reply& stream() ZKS_REQUIRES(mutex_);
  [[noreturn]] void throwClosed() const;
  void dropIfAbandoned() noexcept;

  const std::string service_;
  const std::size_t first_;  // how many of the call's items had been taken before
  const std::size_t count_;  // and how many are left
  std::atomic<bool> abandoned_{false};
  InterruptibleMutex mutex_;
  std::optional<parallel::toolbox::Reply> reply_ ZKS_GUARDED_BY(mutex_);  // nothing once it is abandoned
  std::vector<Item> states_ ZKS_GUARDED_BY(mutex_);
  Counted counted_{counters().replies};
};

}  // namespace zks::bridge
