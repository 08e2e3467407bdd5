#include "toolbox/ReplyItem.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <new>
#include <string>
#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/interrupt/utInterruptState.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/readBigEndian.h"

namespace parallel::toolbox {
namespace {

using spf::transport::ByteSink;
using spf::transport::ByteStream;
using spf::transport::DeserializableData;
using spf::transport::FunctionalByteSink;
using tova::factory::qxArrayProxy;

std::string countOf(std::uint64_t nbytes) {
  return std::to_string(nbytes) + (nbytes == 1 ? " byte" : " bytes");
}

// What is wrong with the bytes of an item that was read as another kind than it is.
template <class Tag>
std::string whatIsWrong(std::uint64_t nbytes);

template <>
std::string whatIsWrong<cluster::DeserializePlainError>(std::uint64_t nbytes) {
  constexpr std::uint64_t kLengthBytes = 8;
  if (nbytes < kLengthBytes)
    return "it has " + countOf(nbytes) + ", and plain bytes begin with the 8 of their length";
  return "its first 8 bytes, the length of plain bytes, are more than memory can hold";
}

template <>
std::string whatIsWrong<cluster::DeserializeQxArrayError>(std::uint64_t nbytes) {
  return "its " + countOf(nbytes) + " are not a serialised array that memory can hold";
}

template <>
std::string whatIsWrong<cluster::DeserializeProtobufError>(std::uint64_t nbytes) {
  return "its " + countOf(nbytes) + " cannot be decoded";
}

// What is too much is dropped, and what was announced and does not come is zero, as in an array.
void readPlain(ByteStream& content, const PlainMemory& memory) {
  const std::int64_t length = spf::transport::readBigEndianInt64(content);
  if (length < 0)
    throw std::bad_alloc();
  const auto nbytes = static_cast<std::size_t>(length);
  std::byte* next = memory(nbytes);
  std::size_t room = nbytes;
  FunctionalByteSink into([&](const std::byte* data, std::size_t n) {
    const std::size_t taken = std::min(n, room);
    next = std::copy_n(data, taken, next);
    room -= taken;
  });
  content.read(into, nbytes);
  std::fill_n(next, room, std::byte{0});
  FunctionalByteSink nowhere([](const std::byte*, std::size_t) {});
  content.read(nowhere);
}

// The message that stands in the payload.
qxArrayProxy resultOf(const qxArrayProxy& payload) {
  const qxArray* result = qxHasField(payload.get(), "result") ? qxGetField(payload.get(), 0, "result") : nullptr;
  if (result == nullptr || qxGetClass(result) != qxClass::Struct)
    throw Exception<ItemNotReadable>("a message", "it holds no result");
  return qxArrayProxy(qxCreateSharedCopy(result));
}

}  // namespace

// Counts what is read and remembers what broke the reading, because an item's operations replace every exception by an
// error of their own that has no cause.
class ReplyItem::Content final : public ByteStream {
 public:
  explicit Content(std::shared_ptr<ByteStream> next) : next_(std::move(next)) {}

  std::size_t read(ByteSink& sink, std::size_t nbytes) override {
    try {
      const std::size_t delivered = next_->read(sink, nbytes);
      delivered_ += delivered;
      return delivered;
    } catch (...) {
      failure_ = std::current_exception();
      throw;
    }
  }

  std::uint64_t delivered() const noexcept { return delivered_; }
  const std::exception_ptr& failure() const noexcept { return failure_; }

 private:
  std::shared_ptr<ByteStream> next_;
  std::uint64_t delivered_ = 0;
  std::exception_ptr failure_;
};

ReplyItem::ReplyItem(std::shared_ptr<ByteStream> content)
    : content_(std::make_shared<Content>(std::move(content))), data_(std::make_shared<DeserializableData>(content_)) {}

template <class Tag, class Operation>
qxArrayProxy ReplyItem::take(const char* kind, Operation operation) {
  try {
    return operation(*data_);
  } catch (const Exception<Tag>&) {
    if (content_->failure() != nullptr)
      std::rethrow_exception(content_->failure());
  }
  try {
    throw Exception<ItemNotReadable>(kind, whatIsWrong<Tag>(content_->delivered()));
  } catch (...) {
    std::throw_with_nested(Exception<Tag>());
  }
}

qxArrayProxy ReplyItem::takeMessage() {
  return resultOf(take<cluster::DeserializeProtobufError>(
      "a message", [](DeserializableData& data) { return data.deserializeProtobuf(); }));
}

qxArrayProxy ReplyItem::takeArray() {
  return take<cluster::DeserializeQxArrayError>(
      "an array", [](DeserializableData& data) { return data.deserializeQxArray(qxArrayProxy()); });
}

qxArrayProxy ReplyItem::takePlain() {
  return take<cluster::DeserializePlainError>("plain bytes",
                                              [](DeserializableData& data) { return data.deserializePlain(); });
}

void ReplyItem::takePlainInto(const PlainMemory& memory) {
  take<cluster::DeserializePlainError>("plain bytes", [&](DeserializableData&) {
    try {
      readPlain(*content_, memory);
    } catch (const Corvane::System::InterruptException&) {
      throw;
    } catch (...) {
      throw Exception<cluster::DeserializePlainError>();
    }
    return qxArrayProxy();
  });
}

void ReplyItem::takeBytes(ByteSink& sink) {
  content_->read(sink, std::numeric_limits<std::size_t>::max());
}

}  // namespace parallel::toolbox
