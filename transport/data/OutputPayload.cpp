#include "transport/data/OutputPayload.h"

#include <utility>

#include "transport/data/internal/containerHead.h"
#include "transport/streams/BlockedDataByteStream.h"

namespace parallel::spf::transport {

OutputPayload::OutputPayload(std::vector<std::shared_ptr<DeserializableData>> items) : items_(std::move(items)) {}

OutputPayload OutputPayload::deserialize(std::unique_ptr<ByteStream> stream) {
  const std::shared_ptr<ByteStream> shared(std::move(stream));
  const std::size_t count = internal::readContainerHead(*shared);
  std::vector<std::shared_ptr<DeserializableData>> items;
  items.reserve(count);
  for (std::size_t i = 0; i < count; ++i)
    items.push_back(std::make_shared<DeserializableData>(std::make_shared<BlockedDataByteStream>(shared)));
  return OutputPayload(std::move(items));
}

std::vector<std::shared_ptr<DeserializableData>> OutputPayload::getDeserializableData() const {
  return items_;
}

}  // namespace parallel::spf::transport
