// Reading the serialised form. The bytes are not trusted.
#include <algorithm>
#include <cstring>

#include "platform/array/internal/CborReader.h"
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/arrayFormat.h"
#include "platform/array/internal/share.h"

using qx_detail::CborReader;
using qx_detail::Elements;
using qx_detail::ListStorage;
using qx_detail::Shape;
using qx_detail::StructStorage;

namespace {

using Bytes = std::span<const unsigned char>;

// Every element of a list, struct or dimension array takes a byte of the input that no other element takes. So the
// elements announced by all of them together are at most as many as the bytes, however they are nested.
class ElementBudget {
 public:
  explicit ElementBudget(std::size_t nbytes) : left_(nbytes) {}

  bool claim(std::size_t count) {
    if (count > left_)
      return false;
    left_ -= count;
    return true;
  }

 private:
  std::size_t left_;
};

// Each function reads one part of the format and returns false at the first thing that is not as it should be.
class ValueDecoder {
 public:
  explicit ValueDecoder(Bytes bytes) : reader_(bytes), budget_(bytes.size()) {}

  bool document(qxArrayPtr& result) {
    return reader_.expectTag(qx_detail::kSelfDescribedTag) && value(result, 0) && reader_.atEnd();
  }

 private:
  bool value(qxArrayPtr& result, std::size_t level) {
    std::uint64_t tag = 0;
    if (level > qxMaxNesting || !reader_.readTag(tag))
      return false;
    if (tag == qx_detail::kColumnMajorTag)
      return numeric(result);
    return tag == qx_detail::kHostArrayTag && hostArray(result, level);
  }

  bool numeric(qxArrayPtr& result) {
    std::optional<Shape> shape;
    std::uint64_t tag = 0;
    if (!reader_.expectArrayHead(2) || !dimensions(shape) || !reader_.readTag(tag))
      return false;
    const bool complex = tag == qx_detail::kComplexTag;
    if (complex && !reader_.readTag(tag))
      return false;
    const auto found = std::find(qx_detail::kTypedArrayTags.begin(), qx_detail::kTypedArrayTags.end(), tag);
    if (found == qx_detail::kTypedArrayTags.end())
      return false;
    const auto cls = static_cast<qxClass>(found - qx_detail::kTypedArrayTags.begin());
    return elementBytes(*shape, cls, complex, result);
  }

  bool hostArray(qxArrayPtr& result, std::size_t level) {
    std::size_t pairs = 0;
    std::string_view cls;
    std::optional<Shape> shape;
    if (!reader_.readMapHead(pairs) || !key(qx_detail::kClassKey) || !reader_.readText(cls) ||
        !key(qx_detail::kDimensionsKey) || !dimensions(shape)) {
      return false;
    }
    if (cls == qxClassName(qxClass::Struct))
      return pairs == 4 && structure(*shape, level, result);
    if (pairs != 3 || !key(qx_detail::kElementsKey))
      return false;
    if (cls == qxClassName(qxClass::List))
      return list(*shape, level, result);
    if (cls == qxClassName(qxClass::Text)) {
      return reader_.expectTag(qx_detail::kUtf16UnitsTag) && elementBytes(*shape, qxClass::Text, false, result);
    }
    return cls == qxClassName(qxClass::Boolean) && elementBytes(*shape, qxClass::Boolean, false, result);
  }

  bool list(const Shape& shape, std::size_t level, qxArrayPtr& result) {
    if (!reader_.expectArrayHead(shape.count()) || !budget_.claim(shape.count()))
      return false;
    Elements elements = qx_detail::unsetElements(shape.count());
    for (qxArrayPtr& one : elements) {
      if (!element(one, level))
        return false;
    }
    result = qx_detail::makeShare(qxClass::List, false, shape, std::make_unique<ListStorage>(std::move(elements)));
    return true;
  }

  bool structure(const Shape& shape, std::size_t level, qxArrayPtr& result) {
    std::vector<std::string_view> names;
    if (!key(qx_detail::kFieldsKey) || !fieldNames(names) || !key(qx_detail::kElementsKey))
      return false;
    if (!reader_.expectArrayHead(shape.count()) || !claimStruct(shape.count(), names.size()))
      return false;
    qxFieldNamesPtr table = tableOf(names);
    if (table == nullptr)
      return false;
    auto storage = std::make_unique<StructStorage>(shape.count(), std::move(table));
    for (std::size_t i = 0; i < shape.count(); ++i) {
      if (!structElement(*storage, i, level))
        return false;
    }
    result = qx_detail::makeShare(qxClass::Struct, false, shape, std::move(storage));
    return true;
  }

  bool structElement(StructStorage& storage, std::size_t index, std::size_t level) {
    const std::size_t fieldCount = storage.names().size();
    if (!reader_.expectArrayHead(fieldCount))
      return false;
    for (std::size_t field = 0; field < fieldCount; ++field) {
      if (!element(storage.values(field)[index], level))
        return false;
    }
    return true;
  }

  // A struct element is an array of its own, so it takes a byte even when there are no fields.
  bool claimStruct(std::size_t count, std::size_t fieldCount) {
    std::size_t values = 0;
    return !__builtin_mul_overflow(count, fieldCount, &values) && budget_.claim(count) && budget_.claim(values);
  }

  bool fieldNames(std::vector<std::string_view>& names) {
    std::size_t count = 0;
    if (!reader_.readArrayHead(count) || !budget_.claim(count))
      return false;
    names.resize(count);
    return std::all_of(names.begin(), names.end(),
                       [this](std::string_view& name) { return reader_.readText(name) && !name.empty(); });
  }

  // Null when a name is there twice.
  static qxFieldNamesPtr tableOf(const std::vector<std::string_view>& names) {
    auto table = std::make_shared<qxFieldNames>();
    for (const std::string_view name : names) {
      if (table->find(name) != qxFieldNames::kNoField)
        return nullptr;
      table->add(std::string(name));
    }
    return table;
  }

  bool element(qxArrayPtr& result, std::size_t level) { return reader_.skipNull() || value(result, level + 1); }

  bool key(std::uint64_t number) { return reader_.expectUnsigned(number); }

  bool dimensions(std::optional<Shape>& shape) {
    std::size_t count = 0;
    if (!reader_.readArrayHead(count) || count == 0 || !budget_.claim(count))
      return false;
    std::vector<std::size_t> sizes(count);
    const auto readOne = [this](std::size_t& size) { return reader_.readUnsigned(size); };
    if (!std::all_of(sizes.begin(), sizes.end(), readOne))
      return false;
    shape = Shape::make(sizes);
    return shape.has_value();
  }

  // A byte string of exactly the array's elements.
  bool elementBytes(const Shape& shape, qxClass cls, bool complex, qxArrayPtr& result) {
    Bytes bytes;
    if (!reader_.readBytes(bytes))
      return false;
    const std::size_t elementBytes = qxClassBytes(cls) * (complex ? 2 : 1);
    if (bytes.size() % elementBytes != 0 || bytes.size() / elementBytes != shape.count())
      return false;
    if (cls == qxClass::Boolean && !allZeroOrOne(bytes))
      return false;
    result = qxCreateUninitializedArray(shape.dimensions(), cls, complex);
    if (!bytes.empty())
      std::memcpy(qxGetWritableData(result.get()), bytes.data(), bytes.size());
    return true;
  }

  static bool allZeroOrOne(Bytes bytes) {
    unsigned char seen = 0;
    for (const unsigned char byte : bytes)
      seen |= byte;  // no branch in the loop, so that it is vectorised
    return seen <= 1;
  }

  CborReader reader_;
  ElementBudget budget_;
};

}  // namespace

qxArray* qxDeserialize(const void* data, std::size_t nbytes) {
  qxArrayPtr result;
  const bool whole = ValueDecoder(Bytes(static_cast<const unsigned char*>(data), nbytes)).document(result);
  return whole ? result.release() : nullptr;
}
