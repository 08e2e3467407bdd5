// The reply of one call: its items, taken in their order, each once.
//
// The kinds of the items are not on the wire; the method says them. Taking an item as another kind than it is gives an
// error or, at worst, other bytes than were meant.
//
// Errors:  `ReplyItemFailed` on top of what went wrong, in the form that the caller chose; an item past
//          the last is a `MalformedReply`. A user interrupt passes as itself. After either the rest of the reply is
//          given up, which cancels a call that is still under way, and each further taking is a `ReplyLost`.
// Threads: one at a time, and no other item of the same call at once.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/tova/qxArrayProxy.h"
#include "toolbox/ErrorForm.h"
#include "toolbox/ObservingInvokable.h"
#include "transport/data/OutputPayload.h"

namespace parallel::toolbox {

class Reply {
 public:
  Reply(std::string method, const spf::transport::OutputPayload& payload,
        std::shared_ptr<const CallObservation> observation, ErrorForm errors = ErrorForm::OneMessage);

  std::size_t itemCount() const noexcept { return itemCount_; }
  std::size_t itemsTaken() const noexcept { return taken_; }

  // `MalformedReply` unless the reply has just so many items; `description` says what they are to be.
  void expectItems(std::size_t count, const std::string& description) const;

  // The message inside a ResultPayload, as a struct.
  tova::factory::qxArrayProxy takeMessage();
  tova::factory::qxArrayProxy takeArray();
  // A uint8 column.
  tova::factory::qxArrayProxy takePlain();
  // Creates or truncates the file; after an error it holds what had come until then. A path that is not UTF-8 is
  // refused
  // (`CannotWriteFile`) and the item is not taken.
  void takeFile(const std::string& path);

 private:
  [[noreturn]] void giveUp(std::size_t number, unsigned long interruptsBefore);
  using Operation = std::function<tova::factory::qxArrayProxy(spf::transport::DeserializableData&)>;
  tova::factory::qxArrayProxy take(const Operation& operation);

  std::string method_;
  std::vector<std::shared_ptr<spf::transport::DeserializableData>> items_;  // none once the reply is lost
  std::size_t itemCount_;
  std::shared_ptr<const CallObservation> observation_;
  ErrorForm errors_;
  std::size_t taken_ = 0;
};

}  // namespace parallel::toolbox
