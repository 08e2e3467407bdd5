#include "scheduler/calls/ReplyWriter.h"

#include <array>
#include <ios>
#include <stdexcept>
#include <string>

#include "transport/streams/BlockedDataByteSink.h"

namespace parallel::scheduler {

using spf::transport::BlockedDataByteSink;
using spf::transport::ByteSink;
using spf::transport::FunctionalByteSink;
namespace block_format = spf::transport::block_format;

namespace {

template <std::size_t Width>
std::array<std::byte, Width> bigEndian(std::uint64_t value) {
  std::array<std::byte, Width> bytes{};
  for (std::size_t i = Width; i-- > 0; value >>= 8)
    bytes[i] = static_cast<std::byte>(value & 0xFF);
  return bytes;
}

template <std::size_t Width>
void writeBigEndian(ByteSink& sink, std::uint64_t value) {
  const auto bytes = bigEndian<Width>(value);
  sink.write(bytes.data(), bytes.size());
}

FunctionalByteSink sinkOver(std::ostream& reply) {
  return FunctionalByteSink([&reply](const std::byte* data, std::size_t n) {
    reply.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(n));
    if (!reply)
      throw std::ios_base::failure("The reply cannot be written");
  });
}

}  // namespace

ReplyWriter::ReplyWriter(std::ostream& reply, std::int32_t itemCount) : sink_(sinkOver(reply)), itemCount_(itemCount) {
  constexpr std::byte kVersion{0};
  sink_.write(&kVersion, 1);
  writeBigEndian<4>(sink_, static_cast<std::uint32_t>(itemCount));
}

void ReplyWriter::writeItem(const Producer& producer) {
  startItem();
  BlockedDataByteSink item(sink_);
  producer(item);
  item.close();
}

void ReplyWriter::writeMessage(const google::protobuf::MessageLite& message) {
  writeItem([&](ByteSink& item) {
    const std::string bytes = message.SerializeAsString();
    item.write(reinterpret_cast<const std::byte*>(bytes.data()), bytes.size());
  });
}

void ReplyWriter::writePlain(std::uint64_t nbytes, const Producer& producer) {
  writeItem([&](ByteSink& item) {
    writeBigEndian<kPlainLengthBytes>(item, nbytes);
    std::uint64_t produced = 0;
    FunctionalByteSink counted([&](const std::byte* data, std::size_t n) {
      produced += n;
      item.write(data, n);
    });
    producer(counted);
    if (produced != nbytes)
      throw std::logic_error("A plain item of " + std::to_string(nbytes) + " bytes was given " +
                             std::to_string(produced));
  });
}

void ReplyWriter::writeFramedItem(const Producer& producer) {
  startItem();
  producer(sink_);
}

void ReplyWriter::writeFramedPlain(std::uint64_t nbytes, const Producer& producer) {
  writeFramedItem([&](ByteSink& sink) {
    const auto header = block_format::encodeHeader(kPlainLengthBytes);
    sink.write(header.data(), header.size());
    writeBigEndian<kPlainLengthBytes>(sink, nbytes);
    producer(sink);
  });
}

void ReplyWriter::finish() const {
  if (written_ != itemCount_)
    throw std::logic_error("A reply of " + std::to_string(itemCount_) + " items was given " + std::to_string(written_));
}

void ReplyWriter::startItem() {
  if (written_ >= itemCount_)
    throw std::logic_error("A reply of " + std::to_string(itemCount_) + " items was given one more");
  ++written_;
}

}  // namespace parallel::scheduler
