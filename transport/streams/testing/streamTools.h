// What the tests of the streams share: byte literals, and sinks and streams that watch or fail.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/ByteSink.h"
#include "transport/streams/ByteStream.h"
#include "transport/streams/ByteVectorByteStream.h"
#include "transport/streams/FunctionalByteSink.h"

namespace parallel::spf::transport::testing {

using Bytes = std::vector<std::byte>;

// What a read of fixed width says when the stream ends too early.
inline constexpr const char* kNotEnough = "Byte stream did not have enough bytes for deserializing type";

inline Bytes bytesOf(std::initializer_list<int> values) {
  Bytes bytes;
  for (const int value : values)
    bytes.push_back(static_cast<std::byte>(value));
  return bytes;
}

inline Bytes bytesOf(const std::string& text) {
  const auto* first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

// Bytes that do not repeat with any power of two, so that a piece out of place shows.
inline Bytes patternBytes(std::size_t count) {
  Bytes bytes(count);
  for (std::size_t index = 0; index < count; ++index)
    bytes[index] = static_cast<std::byte>((index * 7 + index / 251) % 253);
  return bytes;
}

inline Bytes join(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

inline std::shared_ptr<ByteVectorByteStream> streamOf(Bytes bytes) {
  return std::make_shared<ByteVectorByteStream>(std::move(bytes));
}

// Keeps every write apart.
class RecordingSink : public ByteSink {
 public:
  void write(const std::byte* data, std::size_t nbytes) override {
    starts.push_back(data);
    writes.emplace_back(data, data + nbytes);
  }

  Bytes all() const {
    Bytes bytes;
    for (const Bytes& write : writes)
      bytes.insert(bytes.end(), write.begin(), write.end());
    return bytes;
  }

  std::vector<std::size_t> sizes() const {
    std::vector<std::size_t> result;
    for (const Bytes& write : writes)
      result.push_back(write.size());
    return result;
  }

  std::vector<const std::byte*> starts;  // where each write's bytes lay
  std::vector<Bytes> writes;
};

// Throws at its n-th write, counted from 1, and takes the others.
class FailingSink : public ByteSink {
 public:
  struct Failure : std::runtime_error {
    Failure() : std::runtime_error("the sink is full") {}
  };

  explicit FailingSink(int failAt) : failAt_(failAt) {}

  void write(const std::byte* data, std::size_t nbytes) override {
    if (++writes_ == failAt_)
      throw Failure();
    taken.insert(taken.end(), data, data + nbytes);
  }

  bool hasFailed() const { return writes_ >= failAt_; }

  Bytes taken;

 private:
  int failAt_;
  int writes_ = 0;
};

// Notes how much each read asks for.
class SpyStream : public ByteStream {
 public:
  explicit SpyStream(Bytes bytes) : stream_(std::move(bytes)) {}

  std::size_t read(ByteSink& sink, std::size_t nbytes = std::numeric_limits<std::size_t>::max()) override {
    asked.push_back(nbytes);
    return stream_.read(sink, nbytes);
  }

  std::vector<std::size_t> asked;

 private:
  ByteVectorByteStream stream_;
};

// The item in its framing, written in one call.
inline Bytes framed(const Bytes& item) {
  RecordingSink sink;
  BlockedDataByteSink blocks(sink);
  blocks.write(item.data(), item.size());
  blocks.close();
  return sink.all();
}

}  // namespace parallel::spf::transport::testing
