// The ordered items of one reply, cut out of one stream. Format: docs/container.md.
//
// Nothing is read ahead: an item's bytes are reached only when the items before it have been read to their ends, so
// read the items in order, each completely. A fault inside an item shows when that item is read.
//
// Ownership: the items share the stream, which lives as long as any of them.
// Threads:   none of its items may be read while another is.
#pragma once

#include <memory>
#include <vector>

#include "transport/data/DeserializableData.h"
#include "transport/export.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT OutputPayload {
 public:
  explicit OutputPayload(std::vector<std::shared_ptr<DeserializableData>> items);

  // Reads the head, 5 bytes, and makes the items. std::runtime_error when the stream is shorter; Boost's negative
  // overflow when the count is negative. The version byte is not looked at.
  static OutputPayload deserialize(std::unique_ptr<ByteStream> stream);

  // The list is a copy, the items are the same.
  std::vector<std::shared_ptr<DeserializableData>> getDeserializableData() const;

 private:
  std::vector<std::shared_ptr<DeserializableData>> items_;
};

}  // namespace parallel::spf::transport
