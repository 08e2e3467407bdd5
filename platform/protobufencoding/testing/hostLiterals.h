// Host values written down shortly, and printed, for tests.
#pragma once

#include <google/protobuf/message.h>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/array/qxArray.h"

namespace parallel::protobufencoding::testing {

// A 1-by-1 struct that is filled field by field: StructOf("pkg.Point").with("x", scalar<std::int32_t>(1)).
class StructOf {
 public:
  StructOf();
  explicit StructOf(std::string_view messageType);  // adds the field MessageType

  StructOf&& with(std::string_view name, qxArrayPtr value) &&;
  // The value is moved out.
  operator qxArrayPtr() && { return std::move(array_); }  // NOLINT(google-explicit-constructor)
  const qxArray* get() const { return array_.get(); }

 private:
  qxArrayPtr array_;
};

qxArrayPtr text(std::string_view utf8);
qxArrayPtr bytes(std::string_view bytes);
qxArrayPtr boolean(bool value);

template <class T>
qxArrayPtr matrix(std::size_t rows, std::size_t columns, const std::vector<T>& values) {
  const std::size_t dimensions[] = {rows, columns};
  qxArrayPtr array = qxCreateNumericArray(dimensions, qxClassOf<T>());
  auto elements = qxGetWritableElements<T>(array.get());
  for (std::size_t i = 0; i < values.size(); ++i)
    elements[i] = values[i];
  return array;
}
template <class T>
qxArrayPtr columnOf(const std::vector<T>& values) {
  return matrix<T>(values.size(), 1, values);
}
template <class T>
qxArrayPtr scalar(T value) {
  return columnOf<T>({value});
}

namespace detail {
qxArrayPtr listFrom(qxArrayPtr* values, std::size_t count);
qxArrayPtr structColumnFrom(qxArrayPtr* structs, std::size_t count);
}  // namespace detail

// An n-by-1 list.
template <class... Values>
qxArrayPtr list(Values... values) {
  std::vector<qxArrayPtr> all;
  (all.push_back(qxArrayPtr(std::move(values))), ...);
  return detail::listFrom(all.data(), all.size());
}
// An n-by-1 struct array of 1-by-1 structs, with the fields of the first.
template <class... Structs>
qxArrayPtr structColumn(Structs... structs) {
  std::vector<qxArrayPtr> all;
  (all.push_back(qxArrayPtr(std::move(structs))), ...);
  return detail::structColumnFrom(all.data(), all.size());
}
qxArrayPtr emptyStructColumn(const std::vector<std::string>& names);

// The value in words, for the output of failed tests.
std::string print(const qxArray* array);

// "0a 03 61" as bytes.
std::string fromHex(std::string_view hex);
std::string toHex(std::string_view bytes);

// The encoding in which equal messages have equal bytes.
std::string deterministic(const google::protobuf::Message& message);

}  // namespace parallel::protobufencoding::testing
