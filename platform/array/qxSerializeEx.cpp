// Writing the serialised form: one walk over the value counts the bytes, a second one writes them.
#include <cbor.h>

#include <array>
#include <cassert>
#include <cstring>

#include "platform/array/ValuePath.h"
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/arrayFormat.h"
#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using qx_detail::Elements;
using qx_detail::ListStorage;
using qx_detail::StructStorage;

namespace {

// One of libcbor's encoders of a data item's head: the type with a number.
using HeadEncoder = std::size_t (*)(std::uint64_t value, unsigned char* buffer, std::size_t capacity);

class ByteCounter {
 public:
  void head(HeadEncoder /*encode*/, std::uint64_t value) { add(headBytes(value)); }
  void null() { add(1); }
  void bytes(const void* /*data*/, std::size_t nbytes) { add(nbytes); }

  std::size_t nbytes() const { return nbytes_; }

 private:
  static std::size_t headBytes(std::uint64_t value) {
    if (value < 24)
      return 1;
    if (value <= 0xFF)
      return 2;
    if (value <= 0xFFFF)
      return 3;
    return value <= 0xFFFFFFFF ? 5 : 9;
  }

  void add(std::size_t nbytes) {
    // One array may stand in a value many times over, so the sum can pass what memory can address.
    if (__builtin_add_overflow(nbytes_, nbytes, &nbytes_)) {
      throw Exception<host::array::TooLarge>("more than 2^64", qxClassName(qxClass::Uint8));
    }
  }

  std::size_t nbytes_ = 0;
};

class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> room) : room_(room) {}

  void head(HeadEncoder encode, std::uint64_t value) { advance(encode(value, room_.data(), room_.size())); }
  void null() { advance(cbor_encode_null(room_.data(), room_.size())); }
  void bytes(const void* data, std::size_t nbytes) {
    if (nbytes > 0)
      std::memcpy(room_.data(), data, nbytes);
    advance(nbytes);
  }

  bool full() const { return room_.empty(); }

 private:
  void advance(std::size_t nbytes) { room_ = room_.subspan(nbytes); }

  std::span<std::uint8_t> room_;
};

template <class Output>
class ValueEncoder {
 public:
  explicit ValueEncoder(Output& output) : output_(output) {}

  void document(const qxArray* array) {
    output_.head(cbor_encode_tag, qx_detail::kSelfDescribedTag);
    value(array, ValuePath());
  }

 private:
  void value(const qxArray* array, const ValuePath& path) {
    if (path.level() > qxMaxNesting)
      throw Exception<host::array::TooDeep>(qxMaxNesting);
    switch (array->cls) {
      case qxClass::Boolean:
        return boolean(array);
      case qxClass::Text:
        return text(array);
      case qxClass::List:
        return list(array, path);
      case qxClass::Struct:
        return structure(array, path);
      case qxClass::Object:
        throw Exception<host::array::CannotSerialize>(path.text(), qxGetObjectClassName(array));
      default:
        return numeric(array);
    }
  }

  void numeric(const qxArray* array) {
    output_.head(cbor_encode_tag, qx_detail::kColumnMajorTag);
    output_.head(cbor_encode_array_start, 2);
    dimensions(array);
    if (array->complex)
      output_.head(cbor_encode_tag, qx_detail::kComplexTag);
    output_.head(cbor_encode_tag, qx_detail::typedArrayTag(array->cls));
    elementBytes(array);
  }

  void boolean(const qxArray* array) {
    mapUpToElements(array, 3);
    elementBytes(array);
  }

  void text(const qxArray* array) {
    mapUpToElements(array, 3);
    output_.head(cbor_encode_tag, qx_detail::kUtf16UnitsTag);
    elementBytes(array);
  }

  void list(const qxArray* array, const ValuePath& path) {
    const Elements& elements = qx_detail::storageOf<ListStorage>(array).elements();
    mapUpToElements(array, 3);
    output_.head(cbor_encode_array_start, elements.size());
    for (std::size_t i = 0; i < elements.size(); ++i)
      element(elements[i].get(), path.listElement(i));
  }

  void structure(const qxArray* array, const ValuePath& path) {
    const auto& storage = qx_detail::storageOf<StructStorage>(array);
    const std::size_t fieldCount = storage.names().size();
    mapUpToElements(array, 4);
    output_.head(cbor_encode_array_start, array->shape.count());
    for (std::size_t i = 0; i < array->shape.count(); ++i) {
      output_.head(cbor_encode_array_start, fieldCount);
      for (std::size_t f = 0; f < fieldCount; ++f)
        element(storage.values(f)[i].get(), path.field(i, storage.names().all()[f]));
    }
  }

  void element(const qxArray* array, const ValuePath& path) {
    if (array == nullptr) {
      output_.null();
    } else {
      value(array, path);
    }
  }

  // The map of a class that typed arrays do not know, up to the key of the elements.
  void mapUpToElements(const qxArray* array, std::size_t pairs) {
    output_.head(cbor_encode_tag, qx_detail::kHostArrayTag);
    output_.head(cbor_encode_map_start, pairs);
    key(qx_detail::kClassKey);
    textString(qxClassName(array->cls));
    key(qx_detail::kDimensionsKey);
    dimensions(array);
    if (array->cls == qxClass::Struct) {
      key(qx_detail::kFieldsKey);
      fieldNames(array);
    }
    key(qx_detail::kElementsKey);
  }

  void key(std::uint64_t number) { output_.head(cbor_encode_uint, number); }

  void dimensions(const qxArray* array) {
    const qxDimensions all = qxGetDimensions(array);
    output_.head(cbor_encode_array_start, all.size());
    for (const std::size_t dimension : all)
      output_.head(cbor_encode_uint, dimension);
  }

  void fieldNames(const qxArray* array) {
    const auto names = qxGetFieldNames(array);
    output_.head(cbor_encode_array_start, names.size());
    for (const std::string& name : names)
      textString(name);
  }

  void textString(std::string_view text) {
    output_.head(cbor_encode_string_start, text.size());
    output_.bytes(text.data(), text.size());
  }

  void elementBytes(const qxArray* array) {
    const std::size_t nbytes = qxGetDataBytes(array);
    output_.head(cbor_encode_bytestring_start, nbytes);
    output_.bytes(qxGetData(array), nbytes);
  }

  Output& output_;
};

}  // namespace

qxArray* qxSerializeEx(const qxArray* array, std::uint16_t /*options*/) {
  ByteCounter counter;
  ValueEncoder<ByteCounter>(counter).document(array);
  const std::array<std::size_t, 2> column{counter.nbytes(), 1};
  qxArrayPtr serialised = qxCreateUninitializedArray(column, qxClass::Uint8);
  ByteWriter writer(qxGetWritableElements<std::uint8_t>(serialised.get()));
  ValueEncoder<ByteWriter>(writer).document(array);
  assert(writer.full());
  return serialised.release();
}
