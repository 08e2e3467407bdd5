#include "scheduler/calls/RequestReader.h"

#include <limits>
#include <stdexcept>
#include <typeinfo>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/countFields.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/ByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/SPFByteStreamAdaptor.h"
#include "transport/streams/blockFormat.h"
#include "transport/streams/readBigEndian.h"
#include "transport/streams/readBigEndianInt16.h"
#include "transport/streams/readBytes.h"

namespace parallel::scheduler {

using spf::transport::BlockedDataByteStream;
using spf::transport::ByteSink;
using spf::transport::ByteStream;
using spf::transport::FunctionalByteSink;
using spf::transport::SPFByteStreamAdaptor;
namespace block_format = spf::transport::block_format;

// The request's bytes, counted. Remembers a failure of its own or of the sink that it fills, so that one can tell it
// from a fault of the framing that is read through it.
class RequestReader::Source : public ByteStream {
 public:
  explicit Source(std::istream& request) : stream_(std::shared_ptr<std::istream>(std::shared_ptr<void>(), &request)) {}

  std::size_t read(ByteSink& sink, std::size_t n = std::numeric_limits<std::size_t>::max()) override {
    failed_ = true;
    const std::size_t got = stream_.read(sink, n);
    failed_ = false;
    nbytes_ += got;
    return got;
  }

  bool failed() const noexcept { return failed_; }
  std::uint64_t nbytes() const noexcept { return nbytes_; }

 private:
  SPFByteStreamAdaptor stream_;
  std::uint64_t nbytes_ = 0;
  bool failed_ = false;
};

RequestReader::RequestReader(std::istream& request, std::string method)
    : method_(std::move(method)), source_(std::make_shared<Source>(request)) {
  readFraming("the container's head", [this] {
    spf::transport::readBigEndianInt8(*source_);  // the version
    count_ = spf::transport::readBigEndianInt32(*source_);
  });
  if (count_ < 0)
    throwMalformed("its item count is negative (" + std::to_string(count_) + ")");
}

RequestReader::~RequestReader() = default;

void RequestReader::expectItems(std::uint64_t expected) const {
  if (static_cast<std::uint64_t>(count_) != expected)
    throwWrongCount(std::to_string(expected));
}

void RequestReader::expectItemsAtLeast(std::uint64_t expected) const {
  if (static_cast<std::uint64_t>(count_) < expected)
    throwWrongCount("at least " + std::to_string(expected));
}

void RequestReader::readMessage(google::protobuf::Message& message, const DescriptionLimit& limit) {
  std::string bytes;
  const auto refuse = [&](const std::string& reason) {
    throw Exception<parallel::scheduler::UnreadableDescription>(method_, current_, message.GetTypeName(), reason);
  };
  FunctionalByteSink sink([&](const std::byte* data, std::size_t n) {
    if (bytes.size() + n > kMaxMessageBytes)
      refuse("it is larger than " + std::to_string(kMaxMessageBytes) + " bytes");
    bytes.append(reinterpret_cast<const char*>(data), n);
  });
  readItem(sink);
  if (protobufencoding::countFields(*message.GetDescriptor(), bytes, limit.fields) > limit.fields)
    refuse("it has more than " + std::to_string(limit.fields) + " fields (" + limit.option + ")");
  if (!protobufencoding::parseQuietly(message, bytes))
    refuse("its " + std::to_string(bytes.size()) + " bytes do not parse");
}

std::uint64_t RequestReader::readItem(ByteSink& sink) {
  startItem();
  std::uint64_t nbytes = 0;
  readFraming(itemName(), [&] { nbytes = BlockedDataByteStream(source_).read(sink); });
  return nbytes;
}

std::uint64_t RequestReader::copyFramedItem(ByteSink& sink) {
  startItem();
  std::uint64_t total = 0;
  for (;;) {
    const std::int16_t header = readBlockHeader();
    const block_format::Header bytes = block_format::encodeHeader(header);
    sink.write(bytes.data(), bytes.size());
    if (header == block_format::kEndMarker)
      return total;
    const auto nbytes = static_cast<std::size_t>(header);
    if (source_->read(sink, nbytes) < nbytes)
      throwMalformed("it ends inside " + itemName());
    total += nbytes;
  }
}

// A block's bytes, or the end marker.
std::int16_t RequestReader::readBlockHeader() {
  std::int16_t header = 0;
  readFraming(itemName(), [&] { header = spf::transport::readBigEndianInt16(*source_); });
  if (header < block_format::kEndMarker)
    throwMalformed("a block header in " + itemName() + " is negative");
  return header;
}

// Turns the faults that a reader of the framing finds into MalformedRequest, and leaves alone what came from below or
// from the sink.
template <class Read>
void RequestReader::readFraming(const std::string& place, const Read& read) const {
  try {
    read();
  } catch (const std::bad_cast&) {
    if (source_->failed())
      throw;
    throwMalformed("a block header in " + place + " is negative");
  } catch (const std::runtime_error&) {
    if (source_->failed())
      throw;
    throwMalformed("it ends inside " + place);
  }
}

void RequestReader::expectEnd() {
  if (!spf::transport::readBytes(*source_, 1).empty())
    throwMalformed("it goes on after its last item");
}

std::uint64_t RequestReader::nbytesConsumed() const noexcept {
  return source_->nbytes();
}

void RequestReader::startItem() {
  if (current_ >= count_)
    throw std::logic_error("An item past the request's last one was asked for");
  ++current_;
}

std::string RequestReader::itemName() const {
  return "item " + std::to_string(current_) + " of " + std::to_string(count_);
}

void RequestReader::throwMalformed(const std::string& problem) const {
  throw Exception<parallel::scheduler::MalformedRequest>(method_, problem);
}

void RequestReader::throwWrongCount(const std::string& expected) const {
  throw Exception<parallel::scheduler::WrongItemCount>(method_, expected, count_);
}

}  // namespace parallel::scheduler
