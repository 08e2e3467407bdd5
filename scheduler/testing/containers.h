// Requests and replies as strings of bytes, for tests.
#pragma once

#include <google/protobuf/message_lite.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "transport/data/testing/framing.h"
#include "transport/streams/BlockedDataByteSink.h"
#include "transport/streams/BlockedDataByteStream.h"
#include "transport/streams/ByteVectorByteStream.h"
#include "transport/streams/FunctionalByteSink.h"
#include "transport/streams/readBigEndian.h"
#include "transport/streams/readBytes.h"

namespace parallel::scheduler::testing {

using spf::transport::testing::Bytes;

inline std::string textOf(const Bytes& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

inline Bytes bytesOf(const std::string& text) {
  const auto* first = reinterpret_cast<const std::byte*>(text.data());
  return {first, first + text.size()};
}

// A string literal's bytes, NULs and all.
template <std::size_t Size>
std::string raw(const char (&literal)[Size]) {
  return {literal, Size - 1};
}

inline std::string containerOf(const std::vector<std::string>& items) {
  std::string container = textOf(spf::transport::testing::bigEndian(items.size(), 5));  // the version is 0
  spf::transport::FunctionalByteSink sink(
      [&](const std::byte* data, std::size_t n) { container.append(reinterpret_cast<const char*>(data), n); });
  for (const std::string& item : items) {
    spf::transport::BlockedDataByteSink framed(sink);
    framed.write(reinterpret_cast<const std::byte*>(item.data()), item.size());
    framed.close();
  }
  return container;
}

inline std::string requestOf(const google::protobuf::MessageLite& description,
                             const std::vector<std::string>& items = {}) {
  std::vector<std::string> all{description.SerializeAsString()};
  all.insert(all.end(), items.begin(), items.end());
  return containerOf(all);
}

// The items of a whole container. Throws when it is not well-formed or goes on after its last item.
inline std::vector<std::string> itemsOf(const std::string& container) {
  const auto stream = std::make_shared<spf::transport::ByteVectorByteStream>(bytesOf(container));
  spf::transport::readBigEndianInt8(*stream);
  std::vector<std::string> items(static_cast<std::size_t>(spf::transport::readBigEndianInt32(*stream)));
  for (std::string& item : items) {
    spf::transport::BlockedDataByteStream framed(stream);
    item = textOf(spf::transport::readBytes(framed));
  }
  if (!spf::transport::readBytes(*stream, 1).empty())
    throw std::runtime_error("The container goes on after its last item");
  return items;
}

// The bytes of a reply's plain item, whose length it begins with.
inline std::string plainOf(const std::string& item) {
  const std::string length = textOf(spf::transport::testing::bigEndian(item.size() - 8, 8));
  if (item.size() < 8 || item.substr(0, 8) != length)
    throw std::runtime_error("The plain item does not begin with its length");
  return item.substr(8);
}

// Bytes that do not repeat with any power of two.
inline std::string patternOf(std::size_t nbytes) {
  std::string text(nbytes, '\0');
  for (std::size_t i = 0; i < nbytes; ++i)
    text[i] = static_cast<char>((i * 7 + i / 251) % 253);
  return text;
}

}  // namespace parallel::scheduler::testing
