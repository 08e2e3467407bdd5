// Writes a reply container item by item. Format: docs/container.md.
//
// The one place where a reply's plain item gets its length in front: 8 bytes, big-endian, before the bytes themselves.
// Ownership: borrows the ostream.
// Threads:   one at a time.
// Errors:    what the ostream or a producer throws passes through; the reply is then to be ended with an error, since
// its
//            container is incomplete. std::logic_error when items written and announced differ in number, or a plain
//            item and its length.
// Units:     bytes.
#pragma once

#include <google/protobuf/message_lite.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>

#include "transport/streams/ByteSink.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/blockFormat.h"

namespace parallel::scheduler {

class ReplyWriter {
 public:
  using Producer = std::function<void(spf::transport::ByteSink&)>;

  // Sizes beforehand, for ServerCall::setReplySize.
  static constexpr std::uint64_t kHeadBytes = 5;
  static constexpr std::uint64_t kPlainLengthBytes = 8;
  static constexpr std::uint64_t kFramedPlainLengthBytes =
      spf::transport::block_format::kHeaderBytes + kPlainLengthBytes;
  static constexpr std::uint64_t framedPlainBytes(std::uint64_t nbytes) {
    return spf::transport::block_format::framedBytes(kPlainLengthBytes + nbytes);
  }

  // Writes the container's head.
  ReplyWriter(std::ostream& reply, std::int32_t itemCount);

  // A message, array or file item: what the producer writes.
  void writeItem(const Producer& producer);
  void writeMessage(const google::protobuf::MessageLite& message);
  // A plain item of exactly `nbytes`.
  void writePlain(std::uint64_t nbytes, const Producer& producer);

  // Items whose producer writes blocks and end mark itself. The length of a plain one goes in front as a block of its
  // own.
  void writeFramedItem(const Producer& producer);
  void writeFramedPlain(std::uint64_t nbytes, const Producer& producer);

  // That all items have been written.
  void finish() const;

 private:
  void startItem();

  spf::transport::FunctionalByteSink sink_;
  std::int32_t itemCount_;
  std::int32_t written_ = 0;
};

}  // namespace parallel::scheduler
