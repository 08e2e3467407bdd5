// The reply of one call: its items, taken in their order, each once.
//
// The kinds of the items are not on the wire; the method says them. Taking an item as another kind than it is gives an
// error or, at worst, other bytes than were meant.
//
// Errors:  `ReplyItemFailed` on top of what went wrong, in the form that the caller chose; an item past
//          the last is a `MalformedReply`. A user interrupt passes as itself. After either the rest of the reply is
//          given up, which cancels a call that is still under way, and each further taking is a `ReplyLost`.
// Threads: one at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "platform/tova/qxArrayProxy.h"
#include "toolbox/AtomicFile.h"
#include "toolbox/ErrorForm.h"
#include "toolbox/ReplyItem.h"
#include "transport/streams/ByteSink.h"
#include "transport/streams/ByteStream.h"

namespace parallel::toolbox {

class Reply {
 public:
  // `items` gives the items' framing, one after another, from the first one on.
  Reply(std::string method, std::size_t itemCount, std::shared_ptr<spf::transport::ByteStream> items,
        ErrorForm errors = ErrorForm::OneMessage);

  std::size_t itemCount() const noexcept { return itemCount_; }
  std::size_t itemsTaken() const noexcept { return taken_; }

  // `MalformedReply` unless the reply has just so many items; `description` says what they are to be.
  void expectItems(std::size_t count, const std::string& description) const;

  // As ReplyItem's.
  tova::factory::qxArrayProxy takeMessage();
  tova::factory::qxArrayProxy takeArray();
  tova::factory::qxArrayProxy takePlain();
  void takePlainInto(const PlainMemory& memory);
  void takeBytes(spf::transport::ByteSink& sink);
  // The bytes into a file, which appears when it is whole (AtomicFile.h, writeFile). What is wrong with its place is an
  // error that leaves the item untaken.
  void takeFile(const std::string& path, FileKind kind = FileKind::Data);

 private:
  using Operation = std::function<tova::factory::qxArrayProxy(ReplyItem&)>;
  tova::factory::qxArrayProxy take(const Operation& operation);
  [[noreturn]] void giveUp(std::size_t number);

  std::string method_;
  std::size_t itemCount_;
  std::shared_ptr<spf::transport::ByteStream> items_;  // null once the reply is lost
  ErrorForm errors_;
  std::size_t taken_ = 0;
};

}  // namespace parallel::toolbox
