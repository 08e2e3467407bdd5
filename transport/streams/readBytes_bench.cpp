// Replies whose items are all of one size, gathered item by item as an array item is, beside a copy of the same bytes
// into warm memory.
#include <algorithm>
#include <cstring>
#include <iostream>
#include <istream>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

#include "bench/measure.h"
#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/SPFByteStreamAdaptor.h"
#include "transport/streams/readBytes.h"

namespace {

using namespace parallel::spf::transport;

std::vector<char> framedItem(std::size_t nbytes) {
  std::vector<char> wire;
  FunctionalByteSink out([&wire](const std::byte* data, std::size_t count) {
    const auto* bytes = reinterpret_cast<const char*>(data);
    wire.insert(wire.end(), bytes, bytes + count);
  });
  BlockedDataByteSink blocks(out);
  const std::vector<std::byte> content(nbytes, std::byte{7});
  blocks.write(content.data(), content.size());
  blocks.close();
  return wire;
}

// One item over and over; says how much is left, as the framework does.
class ReplyBuffer : public std::streambuf {
 public:
  ReplyBuffer(const std::vector<char>& item, std::size_t count) : item_(item), left_(item.size() * count) {}

 protected:
  std::streamsize showmanyc() override { return static_cast<std::streamsize>(left_); }
  std::streamsize xsgetn(char* data, std::streamsize nbytes) override {
    std::size_t done = 0;
    for (const std::size_t wanted = std::min(static_cast<std::size_t>(nbytes), left_); done < wanted;) {
      const std::size_t piece = std::min(wanted - done, item_.size() - position_);
      std::memcpy(data + done, item_.data() + position_, piece);
      done += piece;
      position_ = (position_ + piece) % item_.size();
    }
    left_ -= done;
    return static_cast<std::streamsize>(done);
  }

 private:
  const std::vector<char>& item_;
  std::size_t left_;
  std::size_t position_ = 0;
};

bench::Contender readingItemsOf(std::size_t itemBytes, std::size_t total) {
  const auto item = std::make_shared<std::vector<char>>(framedItem(itemBytes));
  return {std::to_string(total / itemBytes) + " items of " + std::to_string(itemBytes) + " bytes", [=] {
            const std::size_t count = total / itemBytes;
            ReplyBuffer buffer(*item, count);
            const auto reply = std::make_shared<SPFByteStreamAdaptor>(std::make_shared<std::istream>(&buffer));
            const double seconds = bench::secondsOf([&] {
              for (std::size_t i = 0; i < count; ++i) {
                BlockedDataByteStream content(reply);
                if (readBytes(content).size() != itemBytes)
                  throw std::runtime_error("an item came short");
              }
            });
            return bench::mebibytesPerSecond(count * itemBytes, seconds);
          }};
}

bench::Contender copying(std::size_t total) {
  return {"copy between warm buffers of 1 MiB", [=] {
            const std::vector<char> from(1 << 20, 'x');
            std::vector<char> to(from.size());
            const double seconds = bench::secondsOf([&] {
              for (std::size_t done = 0; done < total; done += from.size())
                std::memcpy(to.data(), from.data(), from.size());
            });
            return bench::mebibytesPerSecond(total, seconds);
          }};
}

}  // namespace

int main() {
  constexpr std::size_t kTotal = 400'000'000;
  std::vector<bench::Contender> contenders{copying(kTotal)};
  for (const std::size_t nbytes : {66'000, 100'000, 300'000, 1'000'000, 10'000'000})
    contenders.push_back(readingItemsOf(nbytes, kTotal));
  contenders.push_back(readingItemsOf(std::size_t{256} << 20, std::size_t{256} << 20));
  const auto samples = bench::measureInterleaved(contenders, 5);
  bench::tableOf("items of a reply", "MiB/s", contenders, samples, 0).print(std::cout);
}
