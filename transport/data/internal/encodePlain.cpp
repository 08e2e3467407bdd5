#include <cstddef>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "transport/data/internal/encoders.h"
#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport::internal {

void encodePlain(const qxArray* array, ByteSink& sink) {
  // Elements, not bytes: plain data is meant to be an array of one-byte elements.
  const std::size_t nbytes = qxGetNumberOfElements(array);
  if (nbytes > 0 && qxGetElementBytes(array) == 0)
    throw Exception<host::array::WrongClass>(qxClassName(qxGetClass(array)), "an array of bytes");
  sink.write(static_cast<const std::byte*>(qxGetData(array)), nbytes);
}

std::size_t hintPlain(const qxArray* array) noexcept {
  return qxGetNumberOfElements(array);
}

}  // namespace parallel::spf::transport::internal
