// Framing of 256 MiB as one array, written and read, beside a plain copy of the same bytes into memory that is as warm.
#include <algorithm>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <vector>

#include "bench/measure.h"
#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/blockFormat.h"

namespace {

using namespace parallel::spf::transport;
using Bytes = std::vector<std::byte>;

constexpr std::size_t kNbytes = std::size_t{256} << 20;

// Copies what comes to the next place of an array.
class ArraySink final : public ByteSink {
 public:
  explicit ArraySink(std::byte* start) : cursor_(start) {}
  void write(const std::byte* data, std::size_t nbytes) override {
    std::memcpy(cursor_, data, nbytes);
    cursor_ += nbytes;
  }

 private:
  std::byte* cursor_;
};

// Reads an array that it does not own, so that each repetition can read the same one.
class ArrayStream final : public ByteStream {
 public:
  explicit ArrayStream(const Bytes& bytes) : bytes_(bytes) {}
  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    const std::size_t delivered = std::min(nbytes, bytes_.size() - consumed_);
    sink.write(bytes_.data() + consumed_, delivered);
    consumed_ += delivered;
    return delivered;
  }

 private:
  const Bytes& bytes_;
  std::size_t consumed_ = 0;
};

void writeFramed(const Bytes& value, ByteSink& sink) {
  BlockedDataByteSink blocks(sink);
  blocks.write(value.data(), value.size());
  blocks.close();
}

void readFramed(const Bytes& wire, ByteSink& sink) {
  BlockedDataByteStream stream(std::make_shared<ArrayStream>(wire));
  stream.read(sink);
}

double rateOf(const std::function<void()>& work) {
  return bench::mebibytesPerSecond(kNbytes, bench::secondsOf(work));
}

}  // namespace

int main() {
  Bytes value(kNbytes);
  for (std::size_t index = 0; index < kNbytes; ++index)
    value[index] = static_cast<std::byte>(index * 7);
  Bytes wire(block_format::framedBytes(kNbytes));
  Bytes copy(kNbytes);
  ArraySink first(wire.data());
  writeFramed(value, first);
  const auto toWire = [&](ByteSink& sink) { writeFramed(value, sink); };
  const auto toCopy = [&](ByteSink& sink) { readFramed(wire, sink); };
  const auto directly = [](Bytes& target, const auto& work) {
    return rateOf([&] {
      ArraySink sink(target.data());
      work(sink);
    });
  };
  const auto byFunction = [](Bytes& target, const auto& work) {
    return rateOf([&] {
      FunctionalByteSink sink([cursor = target.data()](const std::byte* data, std::size_t nbytes) mutable {
        std::memcpy(cursor, data, nbytes);
        cursor += nbytes;
      });
      work(sink);
    });
  };
  const std::vector<bench::Contender> contenders = {
      {"memcpy", [&] { return rateOf([&] { std::memcpy(copy.data(), value.data(), kNbytes); }); }},
      {"framing, write into an array", [&] { return directly(wire, toWire); }},
      {"framing, write through a function", [&] { return byFunction(wire, toWire); }},
      {"framing, read into an array", [&] { return directly(copy, toCopy); }},
      {"framing, read through a function", [&] { return byFunction(copy, toCopy); }},
  };
  const auto samples = bench::measureInterleaved(contenders, 7);
  if (copy != value)
    return 1;
  bench::tableOf("256 MiB, warm memory", "MiB/s", contenders, samples, 0).print(std::cout);
}
