// A plain item of 256 MiB offered to the framework, beside a copy of the same bytes into a reserved fresh vector.
#include <array>
#include <cstring>
#include <functional>
#include <iostream>
#include <utility>
#include <vector>

#include "bench/measure.h"
#include "platform/array/qxArray.h"
#include "transport/streams/createByteStream.h"
#include "transport/streams/reserveBytes.h"

namespace {

using namespace parallel::spf::transport;

constexpr std::size_t kNbytes = std::size_t{256} << 20;

double rateOf(const std::function<void()>& work) {
  return bench::mebibytesPerSecond(kNbytes, bench::secondsOf(work));
}

}  // namespace

int main() {
  const qxArrayPtr array = qxCreateNumericArray(std::array<std::size_t, 2>{kNbytes, 1}, qxClass::Uint8);
  auto* const data = static_cast<char*>(qxGetWritableData(array.get()));
  for (std::size_t index = 0; index < kNbytes; ++index)
    data[index] = static_cast<char>(index * 7);
  const InputPayload payload({SerializableData::createPlain(array)});
  bool sizesAreRight = true;
  const std::vector<bench::Contender> contenders = {
      {"copy into a reserved fresh vector",
       [&] {
         return rateOf([&] {
           std::vector<char> copy;
           copy.reserve(kNbytes);
           copy.insert(copy.end(), data, data + kNbytes);
           sizesAreRight = sizesAreRight && copy.back() == data[kNbytes - 1];
         });
       }},
      {"the same on huge pages",
       [&] {
         return rateOf([&] {
           std::vector<char> copy;
           reserveBytes(copy, kNbytes);
           copy.insert(copy.end(), data, data + kNbytes);
           sizesAreRight = sizesAreRight && copy.back() == data[kNbytes - 1];
         });
       }},
      {"createByteStream",
       [&] {
         return rateOf(
             [&] { sizesAreRight = createByteStream(payload).size() > static_cast<long>(kNbytes) && sizesAreRight; });
       }},
  };
  const auto samples = bench::measureInterleaved(contenders, 7);
  if (!sizesAreRight)
    return 1;
  bench::tableOf("256 MiB, plain item", "MiB/s", contenders, samples, 0).print(std::cout);
}
