#include "transport/data/InputPayload.h"

#include <limits>
#include <utility>

#include "transport/data/internal/containerHead.h"
#include "transport/streams/BlockedDataByteSink.h"

namespace parallel::spf::transport {

namespace {

constexpr std::size_t kFullBlockBytes = 32767;
constexpr std::size_t kBlockHeaderBytes = 2;

std::size_t addSaturating(std::size_t left, std::size_t right) noexcept {
  return left > std::numeric_limits<std::size_t>::max() - right ? std::numeric_limits<std::size_t>::max()
                                                                : left + right;
}

// The blocks' headers and the end mark of an item with that much content.
std::size_t framingBytes(std::size_t contentBytes) noexcept {
  const std::size_t blocks = contentBytes / kFullBlockBytes + 1;
  return (blocks + 1) * kBlockHeaderBytes;
}

}  // namespace

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
  for (const std::shared_ptr<SerializableData>& item : items_) {
    const std::size_t content = item->serializedSizeHint();
    nbytes = addSaturating(nbytes, addSaturating(content, framingBytes(content)));
  }
  return nbytes;
}

}  // namespace parallel::spf::transport
