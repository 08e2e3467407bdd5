// One item of a reply, to be taken once, as the kind that the method returns.
//
// Ownership: shares its stream.
// Threads:   one at a time, together with those who share the stream.
// Errors:    what broke the stream or the sink as it was thrown, a user interrupt among it; else the error of the
//            item's operation (`DeserializeQxArrayError` and its like) on top of an `ItemNotReadable`. The item is taken
//            then.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/tova/qxArrayProxy.h"
#include "transport/data/DeserializableData.h"
#include "transport/streams/ByteSink.h"
#include "transport/streams/ByteStream.h"

namespace parallel::toolbox {

// Gives memory for so many bytes, or throws std::bad_alloc.
using PlainMemory = std::function<std::byte*(std::size_t nbytes)>;

class ReplyItem {
 public:
  // Over the content of the item, which ends where the stream does.
  explicit ReplyItem(std::shared_ptr<spf::transport::ByteStream> content);

  // The message inside a ResultPayload, as a struct.
  tova::factory::qxArrayProxy takeMessage();
  tova::factory::qxArrayProxy takeArray();
  // A uint8 column.
  tova::factory::qxArrayProxy takePlain();
  // The same bytes into memory of the caller's, who is told once how many there are to be. What the service announced and
  // did not send is zero.
  void takePlainInto(const PlainMemory& memory);
  // The bytes as they are, of an item of any kind: the content of a file.
  void takeBytes(spf::transport::ByteSink& sink);

 private:
  class Content;
  template <class Tag, class Operation>
  tova::factory::qxArrayProxy take(const char* kind, Operation operation);

  std::shared_ptr<Content> content_;
  std::shared_ptr<spf::transport::DeserializableData> data_;
};

}  // namespace parallel::toolbox
