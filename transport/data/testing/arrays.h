// Host arrays for tests, in one word each.
#pragma once

#include <algorithm>
#include <array>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "transport/data/testing/RecordingByteSink.h"

namespace parallel::spf::transport::testing {

template <class T>
qxArrayPtr columnOf(const std::vector<T>& values) {
  qxArrayPtr array = qxCreateNumericArray(std::array<std::size_t, 2>{values.size(), 1}, qxClassOf<T>());
  std::copy(values.begin(), values.end(), qxGetWritableElements<T>(array.get()).begin());
  return array;
}

inline qxArrayPtr byteColumn(const Bytes& bytes) {
  qxArrayPtr array = qxCreateNumericArray(std::array<std::size_t, 2>{bytes.size(), 1}, qxClass::Uint8);
  std::transform(bytes.begin(), bytes.end(), qxGetWritableElements<std::uint8_t>(array.get()).begin(),
                 [](std::byte value) { return std::to_integer<std::uint8_t>(value); });
  return array;
}

inline Bytes bytesOfArray(const qxArray* array) {
  const auto* data = static_cast<const std::byte*>(qxGetData(array));
  return {data, data + qxGetDataBytes(array)};
}

// The uint8 column 'a', 'b', 'c' in its serialised form, as docs/container.md shows it.
inline Bytes serializedAbc() {
  return bytesOf({0xD9, 0xD9, 0xF7, 0xD9, 0x04, 0x10, 0x82, 0x82, 0x03, 0x01, 0xD8, 0x40, 0x43, 'a', 'b', 'c'});
}

inline qxArrayPtr textOf(const std::filesystem::path& path) {
  return qxCreateStringUtf8(path.string());
}

// A 1-by-1 struct that describes a message without fields set; set them with qxSetField.
inline qxArrayPtr messageStruct(const char* fullName) {
  const std::array<std::string, 1> names{"MessageType"};
  qxArrayPtr message = qxCreateStructArray(std::array<std::size_t, 2>{1, 1}, names);
  qxSetField(message.get(), 0, "MessageType", qxCreateStringUtf8(fullName));
  return message;
}

}  // namespace parallel::spf::transport::testing
