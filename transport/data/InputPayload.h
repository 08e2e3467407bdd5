// The ordered items that travel with one method call, and the writer of their container. Format: docs/container.md.
//
// Ownership: shares its items.
// Threads:   a payload does not change; serialize() may run on any thread that may use the host's arrays.
// Errors:    what an item's encoder or the sink throws passes through; the bytes written until then stay written.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "transport/data/SerializableData.h"
#include "transport/export.h"

namespace parallel::spf::transport {

class PARALLEL_SPF_TRANSPORT_EXPORT InputPayload {
 public:
  explicit InputPayload(std::vector<std::shared_ptr<SerializableData>> items);

  // The whole container; every call encodes every item anew. More than 2^31 - 1 items throw Boost's positive overflow.
  void serialize(ByteSink& sink) const;

  // Bytes to reserve before serialize(): an estimate from above where the items know their sizes beforehand. Items that
  // do not (messages, arrays with nested values) count only for their framing.
  std::size_t serializedSizeHint() const noexcept;

 private:
  std::vector<std::shared_ptr<SerializableData>> items_;
};

}  // namespace parallel::spf::transport
