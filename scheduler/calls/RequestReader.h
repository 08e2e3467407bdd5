// Reads a request container item by item. Format: docs/container.md.
//
// The trap: items share one stream, so each is read to its end before the next one is touched.
// Ownership: borrows the istream.
// Threads:   one at a time.
// Errors:    `MalformedRequest` when the container ends too early, has a bad count or a bad block header, or goes on
// after
//            its last item; `WrongItemCount`; `UnreadableDescription`. What the istream itself or the caller's sink
//            throws passes through unchanged. After an error the reader is of no further use.
#pragma once

#include <google/protobuf/message.h>

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include "scheduler/calls/DescriptionLimit.h"
#include "transport/streams/ByteSink.h"

namespace parallel::scheduler {

class RequestReader {
 public:
  // A description larger than this is refused; bulk data belongs into items of its own.
  static constexpr std::uint64_t kMaxMessageBytes = std::uint64_t{64} << 20;

  // Reads the container's head. The version byte is not looked at.
  RequestReader(std::istream& request, std::string method);
  ~RequestReader();
  RequestReader(const RequestReader&) = delete;
  RequestReader& operator=(const RequestReader&) = delete;

  std::int32_t itemCount() const noexcept { return count_; }
  void expectItems(std::uint64_t expected) const;
  void expectItemsAtLeast(std::uint64_t expected) const;

  // The next item as a message that describes the call.
  void readMessage(google::protobuf::Message& message, const DescriptionLimit& limit);
  // The next item's data. Returns its bytes.
  std::uint64_t readItem(spf::transport::ByteSink& sink);
  // The next item as it is framed: block headers, blocks and end mark. Returns its data bytes, the framing not counted.
  std::uint64_t copyFramedItem(spf::transport::ByteSink& sink);
  // That the stream ends here.
  void expectEnd();

  // Bytes of the request read until now, framing included.
  std::uint64_t nbytesConsumed() const noexcept;

 private:
  class Source;

  template <class Read>
  void readFraming(const std::string& place, const Read& read) const;
  std::int16_t readBlockHeader();
  void startItem();
  [[noreturn]] void throwMalformed(const std::string& problem) const;
  [[noreturn]] void throwWrongCount(const std::string& expected) const;
  std::string itemName() const;

  std::string method_;
  std::shared_ptr<Source> source_;
  std::int32_t count_ = 0;
  std::int32_t current_ = 0;  // the item being read, from 1
};

}  // namespace parallel::scheduler
