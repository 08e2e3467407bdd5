// A RapidCheck generator of host arrays: every class but objects, real and complex, empty to 4-dimensional, lists and
// structs nested to a given depth with unset elements among them.
//
//     rc::prop("...", [] { const auto array = *array_testing::arbitraryArray(); ... array.get() ... });
//
// Element bytes are random, so floating-point elements include NaNs, infinities and subnormals, and text includes
// unpaired surrogates.
#pragma once

#include <rapidcheck.h>

#include <algorithm>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"

namespace array_testing {

// A value that RapidCheck can copy and show.
class AnyArray {
 public:
  explicit AnyArray(qxArrayPtr array) : array_(array.release(), qxDestroyer()) {}
  qxArray* get() const { return array_.get(); }

 private:
  std::shared_ptr<qxArray> array_;
};

// "2-by-3 list {float64 1-by-1, unset, ...}".
inline void describeArray(std::ostream& out, const qxArray* array) {
  if (array == nullptr) {
    out << "unset";
    return;
  }
  const char* separator = "";
  for (const std::size_t dimension : qxGetDimensions(array)) {
    out << separator << dimension;
    separator = "-by-";
  }
  out << (qxIsComplex(array) ? " complex " : " ") << qxClassName(qxGetClass(array));
  const std::size_t count = qxGetNumberOfElements(array);
  if (qxGetClass(array) == qxClass::List) {
    out << " {";
    for (std::size_t i = 0; i < count; ++i) {
      describeArray(out, qxGetListElement(array, i));
      out << ", ";
    }
    out << "}";
  }
  if (qxGetClass(array) == qxClass::Struct) {
    for (const std::string& name : qxGetFieldNames(array)) {
      out << " ." << name << " {";
      for (std::size_t i = 0; i < count; ++i) {
        describeArray(out, qxGetField(array, i, name));
        out << ", ";
      }
      out << "}";
    }
  }
}

inline std::ostream& operator<<(std::ostream& out, const AnyArray& array) {
  describeArray(out, array.get());
  return out;
}

namespace arbitrary_detail {

inline std::vector<std::size_t> dimensions(std::size_t mostPerDimension) {
  const auto rank = *rc::gen::inRange<std::size_t>(0, 5);
  std::vector<std::size_t> sizes;
  for (std::size_t i = 0; i < rank; ++i)
    sizes.push_back(*rc::gen::inRange<std::size_t>(0, mostPerDimension + 1));
  return sizes;
}

inline qxArrayPtr dataArray(qxClass cls) {
  const bool numeric = cls <= qxClass::Uint64;
  const bool complex = numeric && *rc::gen::arbitrary<bool>();
  qxArrayPtr array = qxCreateNumericArray(dimensions(4), cls, complex);
  std::mt19937 random(*rc::gen::arbitrary<unsigned>());
  auto* bytes = static_cast<unsigned char*>(qxGetWritableData(array.get()));
  const unsigned mask = cls == qxClass::Boolean ? 1 : 0xFF;
  std::generate_n(bytes, qxGetDataBytes(array.get()), [&] { return static_cast<unsigned char>(random() & mask); });
  return array;
}

inline qxArrayPtr anyArray(int depth);

inline qxArrayPtr anyElement(int depth) {
  return *rc::gen::inRange(0, 4) == 0 ? qxArrayPtr() : anyArray(depth);
}

inline qxArrayPtr listArray(int depth) {
  qxArrayPtr array = qxCreateListArray(dimensions(2));
  for (std::size_t i = 0; i < qxGetNumberOfElements(array.get()); ++i) {
    qxSetListElement(array.get(), i, anyElement(depth - 1));
  }
  return array;
}

inline qxArrayPtr structArray(int depth) {
  const std::vector<std::string> all{"x", "speed", "größe", "a b", "名", "😀", "x1", "SavedClass"};
  const auto fieldCount = *rc::gen::inRange<std::size_t>(0, 4);
  qxArrayPtr array = qxCreateStructArray(dimensions(2), {});
  for (std::size_t f = 0; f < fieldCount; ++f) {
    const std::string name = *rc::gen::elementOf(all);
    qxAddField(array.get(), name);
    for (std::size_t i = 0; i < qxGetNumberOfElements(array.get()); ++i) {
      qxSetField(array.get(), i, name, anyElement(depth - 1));
    }
  }
  return array;
}

inline qxArrayPtr anyArray(int depth) {
  const auto last = depth > 0 ? qxClass::Struct : qxClass::Text;
  const auto cls = static_cast<qxClass>(*rc::gen::inRange(0, static_cast<int>(last) + 1));
  if (cls == qxClass::List)
    return listArray(depth);
  if (cls == qxClass::Struct)
    return structArray(depth);
  return dataArray(cls);
}

}  // namespace arbitrary_detail

// At most `depth` lists and structs stand around any value in it.
inline rc::Gen<AnyArray> arbitraryArray(int depth = 4) {
  return rc::gen::exec([depth] { return AnyArray(arbitrary_detail::anyArray(depth)); });
}

}  // namespace array_testing
