// Fuzz target: any bytes on the wire are read as a plain loop over the format reads them, whatever pieces they come in
// and are asked for in; and what was read comes back from our own writer.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <stdexcept>
#include <string>

#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/readBytes.h"
#include "transport/streams/testing/streamTools.h"

namespace {

using namespace parallel::spf::transport;
using testing::Bytes;

constexpr const char* kTooShort = "Byte stream did not have enough bytes for deserializing type";
constexpr const char* kNegative = "bad numeric conversion: negative overflow";

void require(bool condition) {
  if (!condition)
    std::abort();
}

struct Item {
  Bytes content;
  std::string error;          // empty when the end marker came
  std::size_t wireBytes = 0;  // taken from the wire
};

// docs/framing.md, word by word.
Item expectedOf(std::span<const std::byte> wire) {
  Item item;
  while (true) {
    if (wire.size() - item.wireBytes < 2) {
      item.error = kTooShort;
      item.wireBytes = wire.size();
      return item;
    }
    const int high = std::to_integer<int>(wire[item.wireBytes]);
    const int low = std::to_integer<int>(wire[item.wireBytes + 1]);
    item.wireBytes += 2;
    if (high == 0xFF && low == 0xFF)
      return item;
    if (high >= 0x80) {
      item.error = kNegative;
      return item;
    }
    const auto block = wire.subspan(item.wireBytes);
    const std::size_t nbytes = std::min(block.size(), static_cast<std::size_t>(high * 256 + low));
    item.content.insert(item.content.end(), block.begin(), block.begin() + static_cast<std::ptrdiff_t>(nbytes));
    item.wireBytes += nbytes;
  }
}

// Delivers at most so many bytes per write.
class PiecewiseStream : public ByteStream {
 public:
  PiecewiseStream(Bytes bytes, std::size_t pieceBytes) : bytes_(std::move(bytes)), pieceBytes_(pieceBytes) {}

  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    std::size_t done = 0;
    while (done < nbytes && taken < bytes_.size()) {
      const std::size_t piece = std::min({pieceBytes_, nbytes - done, bytes_.size() - taken});
      sink.write(bytes_.data() + taken, piece);
      taken += piece;
      done += piece;
    }
    return done;
  }

  std::size_t taken = 0;

 private:
  const Bytes bytes_;
  const std::size_t pieceBytes_;
};

Item readItem(const Bytes& wire, std::size_t pieceBytes, std::size_t readBytes) {
  const auto source = std::make_shared<PiecewiseStream>(wire, pieceBytes);
  BlockedDataByteStream stream(source);
  testing::RecordingSink sink;
  Item item;
  try {
    while (stream.read(sink, readBytes) == readBytes) {
    }
    require(stream.read(sink, 1) == 0);
  } catch (const std::exception& error) {
    item.error = error.what();
  }
  item.content = sink.all();
  item.wireBytes = source->taken;
  return item;
}

Bytes framedInPieces(const Bytes& content, std::size_t pieceBytes) {
  testing::RecordingSink wire;
  BlockedDataByteSink sink(wire);
  for (std::size_t at = 0; at < content.size(); at += pieceBytes)
    sink.write(content.data() + at, std::min(pieceBytes, content.size() - at));
  sink.close();
  return wire.all();
}

}  // namespace

// Two bytes that say in which pieces to work, then the wire.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  if (nbytes < 2)
    return 0;
  const std::size_t pieceBytes = data[0] + std::size_t{1};
  const std::size_t readBytes = data[1] == 0xFF ? std::size_t{1} << 20 : data[1] + std::size_t{1};
  const auto* first = reinterpret_cast<const std::byte*>(data + 2);
  const Bytes wire(first, first + nbytes - 2);

  const Item expected = expectedOf(wire);
  const Item found = readItem(wire, pieceBytes, readBytes);
  require(found.error == expected.error);
  require(found.content == expected.content);
  require(found.wireBytes == expected.wireBytes);

  const Bytes written = framedInPieces(expected.content, readBytes);
  require(written == testing::framed(expected.content));
  const Item again = readItem(written, readBytes, pieceBytes);
  require(again.error.empty() && again.content == expected.content && again.wireBytes == written.size());
  return 0;
}
