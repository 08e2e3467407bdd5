#include "transport/data/InputPayload.h"

#include <utility>

#include "transport/data/internal/containerHead.h"
#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/blockFormat.h"

namespace parallel::spf::transport {

InputPayload::InputPayload(std::vector<std::shared_ptr<SerializableData>> items) : items_(std::move(items)) {}

void InputPayload::serialize(ByteSink& sink) const {
  internal::writeContainerHead(sink, items_.size());
  for (const std::shared_ptr<SerializableData>& item : items_) {
    BlockedDataByteSink blocks(sink);
    item->serialize(blocks);
    blocks.close();
  }
}

std::size_t InputPayload::serializedSizeHint() const noexcept {
  std::size_t nbytes = internal::kContainerHeadBytes;
  for (const std::shared_ptr<SerializableData>& item : items_)
    nbytes += block_format::framedBytes(item->serializedSizeHint());
  return nbytes;
}

}  // namespace parallel::spf::transport
