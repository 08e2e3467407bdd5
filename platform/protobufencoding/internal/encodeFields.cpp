// Single and repeated fields from host values.
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/reflection.h>

#include <bit>
#include <limits>

#include "platform/protobufencoding/internal/MessageEncoder.h"
#include "platform/protobufencoding/internal/encodeErrors.h"
#include "platform/protobufencoding/internal/numericConversion.h"
#include "platform/protobufencoding/internal/scalarFields.h"

namespace parallel::protobufencoding {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

namespace {

void checkScalar(const qxArray* array, std::string_view wanted, const FieldPath& path) {
  if (array == nullptr || !isScalar(array))
    throwEncodeError(path, describe(array), std::string(wanted) + " 1-by-1");
}

void checkVector(const qxArray* array, std::string_view wanted, const FieldPath& path) {
  if (array == nullptr || !isVector(array))
    throwEncodeError(path, describe(array), "a column of " + std::string(wanted));
  checkCount(array, path);
}

template <class T>
bool isOf(const qxArray* array) {
  return qxGetClass(array) == qxClassOf<T>() && !qxIsComplex(array);
}

template <class T>
T scalarFrom(const qxArray* array, const FieldPath& path) {
  if (array != nullptr) {
    if (const T* element = qxFindScalar<T>(array))
      return *element;
  }
  checkScalar(array, qxClassName(qxClassOf<T>()), path);
  T value{};
  if constexpr (std::is_same_v<T, bool>) {
    throwEncodeError(path, describe(array), "boolean");
  } else {
    convertNumbers<T>(array, path, [&](T converted) { value = converted; });
  }
  return value;
}

// Whether elements lie in memory as they do on the wire.
bool isFixedWidth(const FieldDescriptor& field) {
  switch (field.type()) {
    case FieldDescriptor::TYPE_DOUBLE:
    case FieldDescriptor::TYPE_FLOAT:
    case FieldDescriptor::TYPE_FIXED32:
    case FieldDescriptor::TYPE_FIXED64:
    case FieldDescriptor::TYPE_SFIXED32:
    case FieldDescriptor::TYPE_SFIXED64:
      return std::endian::native == std::endian::little;
    default:
      return false;
  }
}

// Adds many elements by letting the parser read them out of the array as one packed field: the only public way that
// does not add them one by one.
bool addAsPackedField(Message& message, const FieldDescriptor& field, const qxArray* array) {
  namespace io = google::protobuf::io;
  constexpr std::uint32_t kLengthDelimited = 2;
  const std::size_t nbytes = qxGetDataBytes(array);
  if (nbytes > static_cast<std::size_t>(std::numeric_limits<int>::max()) / 2)
    return false;
  std::uint8_t header[16];
  std::uint8_t* end = io::CodedOutputStream::WriteVarint32ToArray(
      static_cast<std::uint32_t>(field.number()) << 3U | kLengthDelimited, header);
  end = io::CodedOutputStream::WriteVarint32ToArray(static_cast<std::uint32_t>(nbytes), end);
  io::ArrayInputStream head(header, static_cast<int>(end - header));
  io::ArrayInputStream data(qxGetData(array), static_cast<int>(nbytes));
  io::ZeroCopyInputStream* parts[] = {&head, &data};
  io::ConcatenatingInputStream both(parts, 2);
  io::CodedInputStream coded(&both);
  return message.MergePartialFromCodedStream(&coded);
}

bool isListVector(const qxArray* array) {
  return array != nullptr && qxGetClass(array) == qxClass::List && isVector(array);
}

// A list of 1-by-1 arrays.
template <class T>
void addListed(Message& message, const FieldDescriptor& field, const qxArray* list, const FieldPath& path) {
  checkCount(list, path);
  const auto values = message.GetReflection()->GetMutableRepeatedFieldRef<T>(&message, &field);
  for (std::size_t i = 0; i < qxGetNumberOfElements(list); ++i)
    values.Add(scalarFrom<T>(qxGetListElement(list, i), FieldPath(path, i)));
}

template <class T>
void addNumbers(Message& message, const FieldDescriptor& field, const qxArray* array, const FieldPath& path) {
  constexpr std::size_t kFewElements = 64;
  if (isListVector(array))
    return addListed<T>(message, field, array, path);
  checkVector(array, qxClassName(qxClassOf<T>()), path);
  const bool fits = isOf<T>(array);
  const std::size_t count = qxGetNumberOfElements(array);
  if (fits && count == 0)
    return;
  if (fits && isFixedWidth(field) && !field.is_extension() && count > kFewElements &&
      addAsPackedField(message, field, array))
    return;
  const auto values = message.GetReflection()->GetMutableRepeatedFieldRef<T>(&message, &field);
  convertNumbers<T>(array, path, [&](T converted) { values.Add(converted); });
}

void addBooleans(Message& message, const FieldDescriptor& field, const qxArray* array, const FieldPath& path) {
  if (isEmptyLiteral(array))
    return;
  if (isListVector(array))
    return addListed<bool>(message, field, array, path);
  checkVector(array, "boolean", path);
  if (qxGetClass(array) != qxClass::Boolean)
    throwEncodeError(path, describe(array), "a column of boolean");
  const auto values = message.GetReflection()->GetMutableRepeatedFieldRef<bool>(&message, &field);
  for (const bool value : qxGetElements<bool>(array))
    values.Add(value);
}

void checkList(const qxArray* array, std::string_view wanted, const FieldPath& path) {
  if (qxGetClass(array) != qxClass::List || !isVector(array))
    throwEncodeError(path, describe(array), "a list of " + std::string(wanted));
  checkCount(array, path);
}

}  // namespace

void MessageEncoder::field(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path) {
  switch (field.cardinality) {
    case Cardinality::Single:
      return single(target, field, array, path);
    case Cardinality::Repeated:
      return repeated(target, field, array, path);
    case Cardinality::Map:
      return map(target, field, array, path);
  }
}

void MessageEncoder::single(const Target& target, const FieldShape& field, const qxArray* array,
                            const FieldPath& path) {
  Message* message = &target.message;
  const Reflection& reflection = target.reflection;
  const FieldDescriptor* descriptor = field.descriptor;
  switch (field.kind) {
    case ValueKind::Int32:
      return reflection.SetInt32(message, descriptor, scalarFrom<std::int32_t>(array, path));
    case ValueKind::Int64:
      return reflection.SetInt64(message, descriptor, scalarFrom<std::int64_t>(array, path));
    case ValueKind::Uint32:
      return reflection.SetUInt32(message, descriptor, scalarFrom<std::uint32_t>(array, path));
    case ValueKind::Uint64:
      return reflection.SetUInt64(message, descriptor, scalarFrom<std::uint64_t>(array, path));
    case ValueKind::Double:
      return reflection.SetDouble(message, descriptor, scalarFrom<double>(array, path));
    case ValueKind::Float:
      return reflection.SetFloat(message, descriptor, scalarFrom<float>(array, path));
    case ValueKind::Bool:
      return reflection.SetBool(message, descriptor, scalarFrom<bool>(array, path));
    case ValueKind::Enum:
      return reflection.SetEnumValue(message, descriptor, enumFrom(array, field, path));
    case ValueKind::String:
      return reflection.SetString(message, descriptor, stringFrom(array, field, path));
    case ValueKind::Bytes:
      return reflection.SetString(message, descriptor, bytesFrom(array, path));
    case ValueKind::Message:
      return value(inside(target, field, *reflection.MutableMessage(message, descriptor)), array, path);
  }
}

void MessageEncoder::repeated(const Target& target, const FieldShape& field, const qxArray* array,
                              const FieldPath& path) {
  Message& message = target.message;
  switch (field.kind) {
    case ValueKind::Int32:
      return addNumbers<std::int32_t>(message, *field.descriptor, array, path);
    case ValueKind::Int64:
      return addNumbers<std::int64_t>(message, *field.descriptor, array, path);
    case ValueKind::Uint32:
      return addNumbers<std::uint32_t>(message, *field.descriptor, array, path);
    case ValueKind::Uint64:
      return addNumbers<std::uint64_t>(message, *field.descriptor, array, path);
    case ValueKind::Double:
      return addNumbers<double>(message, *field.descriptor, array, path);
    case ValueKind::Float:
      return addNumbers<float>(message, *field.descriptor, array, path);
    case ValueKind::Bool:
      return addBooleans(message, *field.descriptor, array, path);
    case ValueKind::Enum:
      return repeatedEnums(target, field, array, path);
    case ValueKind::String:
    case ValueKind::Bytes:
      return repeatedStrings(target, field, array, path);
    case ValueKind::Message:
      return repeatedMessages(target, field, array, path);
  }
}

void MessageEncoder::repeatedEnums(const Target& target, const FieldShape& field, const qxArray* array,
                                   const FieldPath& path) {
  Message* message = &target.message;
  const Reflection& reflection = target.reflection;
  if (qxIsNumeric(array)) {
    checkVector(array, "enum numbers", path);
    std::size_t i = 0;
    return convertNumbers<std::int32_t>(array, path, [&](std::int32_t number) {
      reflection.AddEnumValue(message, field.descriptor, checkedEnum(number, field, FieldPath(path, i++)));
    });
  }
  checkList(array, "enum names", path);
  for (std::size_t i = 0; i < qxGetNumberOfElements(array); ++i) {
    const int number = enumFrom(qxGetListElement(array, i), field, FieldPath(path, i));
    reflection.AddEnumValue(message, field.descriptor, number);
  }
}

void MessageEncoder::repeatedStrings(const Target& target, const FieldShape& field, const qxArray* array,
                                     const FieldPath& path) {
  if (isEmptyLiteral(array))
    return;
  checkList(array, field.kind == ValueKind::String ? "text rows" : "uint8 columns", path);
  Message* message = &target.message;
  for (std::size_t i = 0; i < qxGetNumberOfElements(array); ++i) {
    const qxArray* element = qxGetListElement(array, i);
    const FieldPath elementPath(path, i);
    target.reflection.AddString(
        message, field.descriptor,
        field.kind == ValueKind::String ? stringFrom(element, field, elementPath) : bytesFrom(element, elementPath));
  }
}

MessageEncoder::Target MessageEncoder::inside(const Target& target, const FieldShape& field, Message& inner) {
  const MessageShape& shape = shapes_.of(field);
  return {inner, shape.reflectionIn(target.reflection, field, inner), shape, target.depth + 1};
}

MessageEncoder::Target MessageEncoder::add(const Target& target, const FieldShape& field) {
  return inside(target, field, *target.reflection.AddMessage(&target.message, field.descriptor));
}

void MessageEncoder::repeatedMessages(const Target& target, const FieldShape& field, const qxArray* array,
                                      const FieldPath& path) {
  const bool isStruct = array != nullptr && qxGetClass(array) == qxClass::Struct;
  if (isStruct && shapes_.of(field).isEmptyArray(array))
    return;
  if (array != nullptr && isEmptyLiteral(array))
    return;
  if (array == nullptr || (!isStruct && qxGetClass(array) != qxClass::List) || !isVector(array))
    throwEncodeError(path, describe(array), "a struct column or a list (" + shapes_.of(field).fullName() + ")");
  checkCount(array, path);
  if (isStruct)
    return structArray(target, field, array, path);
  for (std::size_t i = 0; i < qxGetNumberOfElements(array); ++i)
    value(add(target, field), qxGetListElement(array, i), FieldPath(path, i));
}

void MessageEncoder::structArray(const Target& target, const FieldShape& field, const qxArray* structs,
                                 const FieldPath& path) {
  const MessageShape& shape = shapes_.of(field);
  const std::size_t count = qxGetNumberOfElements(structs);
  if (shape.special() != SpecialForm::None) {
    for (std::size_t i = 0; i < count; ++i)
      structValue(add(target, field), structs, i, FieldPath(path, i));
    return;
  }
  const Bindings bindings = bindingsOf(structs, shape, path, Context::Plain);
  for (std::size_t i = 0; i < count; ++i) {
    Message& added = *target.reflection.AddMessage(&target.message, field.descriptor);
    generalForm({added, shape.reflectionIn(target.reflection, field, added), shape, target.depth + 1}, structs, i,
                bindings.all, FieldPath(path, i));
  }
}

}  // namespace parallel::protobufencoding
