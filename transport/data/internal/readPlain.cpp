#include <algorithm>
#include <array>
#include <boost/numeric/conversion/cast.hpp>
#include <cstddef>
#include <cstdint>

#include "transport/data/internal/readers.h"
#include "transport/streams/ByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/readBigEndian.h"
#include "transport/streams/reserveBytes.h"

namespace parallel::spf::transport::internal {

namespace {

void drain(ByteStream& stream) {
  FunctionalByteSink nowhere([](const std::byte*, std::size_t) {});
  stream.read(nowhere);
}

}  // namespace

qxArrayPtr readPlain(ByteStream& stream) {
  const auto count = boost::numeric_cast<std::size_t>(readBigEndianInt64(stream));
  qxArrayPtr array = qxCreateNumericArray(std::array<std::size_t, 2>{count, 1}, qxClass::Uint8);

  auto* cursor = static_cast<std::byte*>(qxGetWritableData(array.get()));
  if (count >= kHugePageReservationBytes)
    adviseHugePages(cursor, count);
  std::size_t room = count;  // a stream that pushes more than asked must not write past the array
  FunctionalByteSink intoArray([&cursor, &room](const std::byte* data, std::size_t nbytes) {
    const std::size_t taken = std::min(nbytes, room);
    cursor = std::copy_n(data, taken, cursor);
    room -= taken;
  });
  // A short item is let pass: the service may announce more than it has.
  stream.read(intoArray, count);
  drain(stream);
  return array;
}

}  // namespace parallel::spf::transport::internal
