#include <cstddef>

#include "platform/interpreter/objectHooks.h"
#include "transport/data/internal/encoders.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport::internal {

void encodeQxArray(const qxArray* array, ByteSink& sink) {
  // The hook gives back the same pointer or a new array; it changes nothing in the one that it is given.
  qxArray* const given = const_cast<qxArray*>(array);  // NOLINT(cppcoreguidelines-pro-type-const-cast)
  qxArray* const saved = inRunSaveObjFunction(given);
  const qxArrayPtr savedOwner(saved == given ? nullptr : saved);

  const qxArrayPtr serialized(qxSerializeEx(saved, qxSerializeDefaults));
  sink.write(static_cast<const std::byte*>(qxGetData(serialized.get())), qxGetNumberOfElements(serialized.get()));
}

std::size_t hintQxArray(const qxArray* array) noexcept {
  // What the serialised form puts around the data: class, parts and dimensions, each at most 9 bytes.
  const std::size_t around = 64 + 9 * qxGetDimensions(array).size();
  return qxGetDataBytes(array) + around;
}

}  // namespace parallel::spf::transport::internal
