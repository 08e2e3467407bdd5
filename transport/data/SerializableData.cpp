#include "transport/data/SerializableData.h"

#include <utility>

#include "platform/errors/InternalException.h"
#include "transport/data/internal/encoders.h"

namespace parallel::spf::transport {

using tova::factory::qxConstArrayProxy;

std::shared_ptr<SerializableData> SerializableData::createProtobuf(const qxConstArrayProxy& array) {
  return std::make_shared<SerializableData>(array, internal::encodeProtobuf);
}

std::shared_ptr<SerializableData> SerializableData::createQxArray(const qxConstArrayProxy& array) {
  return std::make_shared<SerializableData>(array, internal::encodeQxArray, internal::hintQxArray);
}

std::shared_ptr<SerializableData> SerializableData::createPlain(const qxConstArrayProxy& array) {
  return std::make_shared<SerializableData>(array, internal::encodePlain, internal::hintPlain);
}

std::shared_ptr<SerializableData> SerializableData::createFile(const qxConstArrayProxy& array) {
  return std::make_shared<SerializableData>(array, internal::encodeFile, internal::hintFile);
}

SerializableData::SerializableData(const qxConstArrayProxy& array, Encoder encoder, SizeHint sizeHint)
    : array_(array.get() == nullptr ? nullptr : qxCreateSharedCopy(array.get())),
      encoder_(std::move(encoder)),
      sizeHint_(std::move(sizeHint)) {}

SerializableData::~SerializableData() {
  encoder_ = nullptr;
  array_.reset();
  tova::factory::full::retract(this);
}

void SerializableData::serialize(ByteSink& sink) const {
  if (array_ == nullptr)
    throw InternalException("The data item was made of no array");
  encoder_(array_.get(), sink);
}

std::size_t SerializableData::serializedSizeHint() const noexcept {
  try {
    return array_ == nullptr || !sizeHint_ ? 0 : sizeHint_(array_.get());
  } catch (...) {
    return 0;  // what is wrong is told when the item is serialised
  }
}

}  // namespace parallel::spf::transport
