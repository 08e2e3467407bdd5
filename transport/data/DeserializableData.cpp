#include "transport/data/DeserializableData.h"

#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/logging/currentExceptionText.h"
#include "transport/data/internal/readers.h"
#include "transport/getLogger.h"

namespace parallel::spf::transport {

using tova::factory::qxArrayProxy;

namespace {

// What `operation` gives. Whatever it throws goes to the log and no further; the caller gets the error named Tag.
template <class Tag, class Operation>
auto orThrow(Operation operation) {
  try {
    return operation();
  } catch (...) {
    FOUNDATION_LOG(getLogger(), 16) << "Exception caught: " << logging::currentExceptionText();
    throw Exception<Tag, std::exception>();
  }
}

}  // namespace

DeserializableData::DeserializableData(std::shared_ptr<ByteStream> stream) : stream_(std::move(stream)) {}

DeserializableData::~DeserializableData() {
  stream_.reset();
  tova::factory::full::retract(this);
}

qxArrayProxy DeserializableData::deserializeProtobuf() {
  return orThrow<cluster::DeserializeProtobufError>([&] { return qxArrayProxy(internal::readProtobuf(*stream_)); });
}

qxArrayProxy DeserializableData::deserializeQxArray(const qxArrayProxy& defaultValue) {
  return orThrow<cluster::DeserializeQxArrayError>(
      [&] { return qxArrayProxy(internal::readQxArray(*stream_, defaultValue.get())); });
}

qxArrayProxy DeserializableData::deserializePlain() {
  return orThrow<cluster::DeserializePlainError>([&] { return qxArrayProxy(internal::readPlain(*stream_)); });
}

void DeserializableData::deserializeToFile(const std::u16string& path) {
  orThrow<cluster::DeserializeToFileError>([&] { internal::readToFile(*stream_, path); });
}

}  // namespace parallel::spf::transport
