// Map fields from host values. Reflection takes a map as repeated messages of a key and a value.
#include <set>

#include "platform/protobufencoding/internal/MessageEncoder.h"
#include "platform/protobufencoding/internal/encodeErrors.h"

namespace parallel::protobufencoding {

using google::protobuf::Message;

namespace {

// A form of the key by which equal keys are equal.
std::string keyText(const Message& entry, const FieldShape& key) {
  const google::protobuf::Reflection& reflection = *entry.GetReflection();
  switch (key.kind) {
    case ValueKind::Int32:
      return std::to_string(reflection.GetInt32(entry, key.descriptor));
    case ValueKind::Int64:
      return std::to_string(reflection.GetInt64(entry, key.descriptor));
    case ValueKind::Uint32:
      return std::to_string(reflection.GetUInt32(entry, key.descriptor));
    case ValueKind::Uint64:
      return std::to_string(reflection.GetUInt64(entry, key.descriptor));
    case ValueKind::Bool:
      return reflection.GetBool(entry, key.descriptor) ? "true" : "false";
    default:
      return reflection.GetString(entry, key.descriptor);
  }
}

}  // namespace

void MessageEncoder::map(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path) {
  if (field.hasTextKeys && qxGetClass(array) == qxClass::Struct) {
    if (!isScalar(array))
      throwEncodeError(path, describe(array), "a struct 1-by-1 with a field for each key");
    mapFromStruct(target, field, array, 0, path);
  } else if (!isEmptyLiteral(array)) {
    mapFromEntries(target, field, array, path);
  }
}

// From one element, whose field names are the keys.
void MessageEncoder::mapFromStruct(const Target& target, const FieldShape& field, const qxArray* structs,
                                   std::size_t element, const FieldPath& path) {
  const std::span<const std::string> names = qxGetFieldNames(structs);
  for (std::size_t place = 0; place < names.size(); ++place) {
    const qxArray* mapped = qxGetFieldAt(structs, element, place);
    if (mapped == nullptr)
      continue;
    const Target entry = add(target, field);
    entry.reflection.SetString(&entry.message, entry.shape.number(kKeyNumber).descriptor, names[place]);
    single(entry, entry.shape.number(kValueNumber), mapped, FieldPath(path, names[place]));
  }
}

void MessageEncoder::mapFromEntries(const Target& target, const FieldShape& field, const qxArray* array,
                                    const FieldPath& path) {
  const qxClass cls = qxGetClass(array);
  if ((cls != qxClass::Struct && cls != qxClass::List) || !isVector(array))
    throwEncodeError(path, describe(array), "a struct column or a list of structs with the fields key and value");
  checkCount(array, path);
  for (std::size_t i = 0; i < qxGetNumberOfElements(array); ++i) {
    const FieldPath elementPath(path, i);
    const qxArray* element = cls == qxClass::Struct ? array : qxGetListElement(array, i);
    if (element == nullptr || qxGetClass(element) != qxClass::Struct || (cls == qxClass::List && !isScalar(element)))
      throwEncodeError(elementPath, describe(element), "a struct with the fields key and value");
    mapEntry(add(target, field), element, cls == qxClass::Struct ? i : 0, elementPath);
  }
  checkKeys(target, field, path);
}

void MessageEncoder::mapEntry(const Target& entry, const qxArray* structs, std::size_t element, const FieldPath& path) {
  for (const std::string_view name : {kKeyField, kValueField}) {
    if (!qxHasField(structs, name) || qxGetField(structs, element, name) == nullptr)
      throwEncodeError(path, "no field \"" + std::string(name) + "\"", "the fields key and value");
  }
  generalForm(entry, structs, element, path);
}

void MessageEncoder::checkKeys(const Target& target, const FieldShape& field, const FieldPath& path) {
  const google::protobuf::Reflection& reflection = target.reflection;
  const FieldShape& key = shapes_.of(field).number(kKeyNumber);
  std::set<std::string> keys;
  for (int i = 0; i < reflection.FieldSize(target.message, field.descriptor); ++i) {
    const std::string text = keyText(reflection.GetRepeatedMessage(target.message, field.descriptor, i), key);
    if (!keys.insert(text).second)
      throwEncodeError(path, "the key \"" + text + "\" twice", "each key once");
  }
}

}  // namespace parallel::protobufencoding
