// A sink for tests: keeps the bytes and the size of every write, and can be told to fail.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

#include "transport/streams/ByteSink.h"

namespace parallel::spf::transport::testing {

using Bytes = std::vector<std::byte>;

inline Bytes bytesOf(std::initializer_list<int> values) {
  Bytes bytes;
  for (const int value : values)
    bytes.push_back(static_cast<std::byte>(value));
  return bytes;
}

inline Bytes bytesOf(std::string_view text) {
  const auto* data = reinterpret_cast<const std::byte*>(text.data());
  return {data, data + text.size()};
}

inline Bytes concatenated(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const Bytes& part : parts)
    all.insert(all.end(), part.begin(), part.end());
  return all;
}

// Bytes that differ from place to place, so that a piece that is lost, doubled or swapped shows.
inline Bytes patternOf(std::size_t nbytes) {
  Bytes bytes(nbytes);
  for (std::size_t i = 0; i < nbytes; ++i)
    bytes[i] = static_cast<std::byte>((i * 131 + i / 251) & 0xFF);
  return bytes;
}

struct SinkFull : std::runtime_error {
  SinkFull() : std::runtime_error("the sink is full") {}
};

// What a sink was given: all bytes, and how many each write brought.
struct Recording {
  Bytes bytes;
  std::vector<std::size_t> sizes;
};

class RecordingByteSink : public ByteSink, public Recording {
 public:
  RecordingByteSink() = default;
  // The write of that number, from 1, throws SinkFull; those before and after it succeed.
  explicit RecordingByteSink(std::size_t failingWrite) : failingWrite_(failingWrite) {}

  void write(const std::byte* data, std::size_t nbytes) override {
    if (++writes_ == failingWrite_)
      throw SinkFull();
    sizes.push_back(nbytes);
    bytes.insert(bytes.end(), data, data + nbytes);
  }

 private:
  std::size_t failingWrite_ = 0;
  std::size_t writes_ = 0;
};

// What an item or a payload writes.
template <class Serializable>
Recording serialized(const Serializable& object) {
  RecordingByteSink sink;
  object.serialize(sink);
  return std::move(static_cast<Recording&>(sink));
}

}  // namespace parallel::spf::transport::testing
