// Prints the container of a payload of one plain item, in hexadecimal.
#include <cstdio>
#include <memory>
#include <vector>

#include "platform/array/qxArray.h"
#include "transport/data/InputPayload.h"
#include "transport/data/SerializableData.h"
#include "transport/streams/FunctionalByteSink.h"

int main() {
  using namespace parallel::spf::transport;
  const std::size_t shape[] = {3, 1};
  const qxArrayPtr array = qxCreateNumericArray(shape, qxClass::Uint8);
  std::uint8_t value = 'a';
  for (std::uint8_t& element : qxGetWritableElements<std::uint8_t>(array.get()))
    element = value++;

  std::vector<std::shared_ptr<SerializableData>> items{SerializableData::createPlain(array)};
  FunctionalByteSink sink([](const std::byte* data, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
      std::printf("%02x", static_cast<unsigned>(data[i]));
  });
  InputPayload(std::move(items)).serialize(sink);
  std::printf("\n");
}
