#include "platform/protobufencoding/internal/MessageDecoder.h"

#include <google/protobuf/reflection.h>
#include <google/protobuf/unknown_field_set.h>

#include <algorithm>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/hostValues.h"

namespace parallel::protobufencoding {

using google::protobuf::FieldDescriptor;
using google::protobuf::Reflection;

namespace {

template <class T>
qxArrayPtr typedColumn(const google::protobuf::Message& message, const FieldDescriptor* field) {
  const auto values = message.GetReflection()->GetRepeatedFieldRef<T>(message, field);
  const int count = values.size();
  qxArrayPtr array = qxCreateUninitializedArray(column(static_cast<std::size_t>(count)), qxClassOf<T>());
  if (count > 0) {
    T* const elements = qxGetWritableElements<T>(array.get()).data();
    for (int i = 0; i < count; ++i)
      elements[i] = values.Get(i);
  }
  return array;
}

template <class Element>
qxArrayPtr listColumn(int count, Element element) {
  qxArrayPtr list = qxCreateListArray(column(static_cast<std::size_t>(count)));
  for (int i = 0; i < count; ++i)
    qxSetListElement(list.get(), static_cast<std::size_t>(i), element(i));
  return list;
}

}  // namespace

void MessageDecoder::checkDepth(const MessageShape& shape, int depth) {
  if (depth > kMaxMessageNesting)
    throw Exception<::parallel::protobuf::DecodeTooDeep>(shape.fullName(), kMaxMessageNesting);
}

qxArrayPtr MessageDecoder::generalForm(const Message& message, const MessageShape& shape, int depth) {
  checkDepth(shape, depth);
  Present present;
  findPresent(message, shape, present);
  qxArrayPtr result = createStruct(1, shape, present);
  fillStruct(result.get(), 0, message, shape, present, depth);
  return result;
}

qxArrayPtr MessageDecoder::value(const Message& message, const MessageShape& shape, int depth) {
  checkDepth(shape, depth);
  if (qxArrayPtr special = specialForm(message, shape, depth))
    return special;
  return generalForm(message, shape, depth);
}

void MessageDecoder::findPresent(const Message& message, const MessageShape& shape, Present& present) {
  const Reflection& reflection = *message.GetReflection();
  present.fields.clear();
  for (const FieldShape& field : shape.fields()) {
    if (!field.hasPresence || reflection.HasField(message, field.descriptor))
      present.fields.push_back(&field);
  }
  if (shape.isExtendable()) {
    std::vector<const FieldDescriptor*> set;
    reflection.ListFields(message, &set);
    for (const FieldDescriptor* field : set) {
      if (field->is_extension())
        present.fields.push_back(&shapes_.ofExtension(field));
    }
  }
  present.unknown = !reflection.GetUnknownFields(message).empty();
}

// Entries of maps name no type: they are not messages to users.
qxArrayPtr MessageDecoder::createStruct(std::size_t count, const MessageShape& shape, const Present& present) {
  std::vector<std::string> names;
  names.reserve(present.fields.size() + 2);
  if (!shape.isMapEntry())
    names.emplace_back(kMessageTypeField);
  for (const FieldShape* field : present.fields)
    names.push_back(field->name);
  if (present.unknown)
    names.emplace_back(kUnknownFieldsField);
  return qxCreateStructArray(column(count), names);
}

void MessageDecoder::fillStruct(qxArray* target, std::size_t element, const Message& message, const MessageShape& shape,
                                const Present& present, int depth) {
  if (!shape.isMapEntry())
    qxSetField(target, element, kMessageTypeField, messageTypeText(shape));
  for (const FieldShape* present_field : present.fields)
    qxSetField(target, element, present_field->name, field(message, *present_field, depth));
  if (present.unknown) {
    std::string bytes;
    message.GetReflection()->GetUnknownFields(message).SerializeToString(&bytes);
    qxSetField(target, element, kUnknownFieldsField, createBytes(bytes));
  }
}

qxArrayPtr MessageDecoder::messageTypeText(const MessageShape& shape) {
  qxArrayPtr& text = typeTexts_[&shape];
  if (text == nullptr)
    text = qxCreateStringUtf8(shape.fullName());
  return qxCreateSharedCopy(text.get());
}

qxArrayPtr MessageDecoder::field(const Message& message, const FieldShape& field, int depth) {
  switch (field.cardinality) {
    case Cardinality::Single:
      return single(message, field, depth);
    case Cardinality::Repeated:
      return repeated(message, field, depth);
    case Cardinality::Map:
      break;
  }
  return map(message, field, depth);
}

qxArrayPtr MessageDecoder::single(const Message& message, const FieldShape& field, int depth) {
  const Reflection& reflection = *message.GetReflection();
  const FieldDescriptor* descriptor = field.descriptor;
  std::string scratch;
  switch (field.kind) {
    case ValueKind::Int32:
      return createScalar<std::int32_t>(reflection.GetInt32(message, descriptor));
    case ValueKind::Int64:
      return createScalar<std::int64_t>(reflection.GetInt64(message, descriptor));
    case ValueKind::Uint32:
      return createScalar<std::uint32_t>(reflection.GetUInt32(message, descriptor));
    case ValueKind::Uint64:
      return createScalar<std::uint64_t>(reflection.GetUInt64(message, descriptor));
    case ValueKind::Double:
      return createScalar(reflection.GetDouble(message, descriptor));
    case ValueKind::Float:
      return createScalar(reflection.GetFloat(message, descriptor));
    case ValueKind::Bool:
      return createScalar(reflection.GetBool(message, descriptor));
    case ValueKind::Enum:
      return enumValue(field, reflection.GetEnumValue(message, descriptor));
    case ValueKind::String:
      return createTextOrBytes(reflection.GetStringReference(message, descriptor, &scratch));
    case ValueKind::Bytes:
      return createBytes(reflection.GetStringReference(message, descriptor, &scratch));
    case ValueKind::Message:
      break;
  }
  return value(reflection.GetMessage(message, descriptor), shapes_.of(field), depth + 1);
}

qxArrayPtr MessageDecoder::repeated(const Message& message, const FieldShape& field, int depth) {
  const Reflection& reflection = *message.GetReflection();
  const FieldDescriptor* descriptor = field.descriptor;
  const auto list = [&](auto element) { return listColumn(reflection.FieldSize(message, descriptor), element); };
  std::string scratch;
  switch (field.kind) {
    case ValueKind::Int32:
      return typedColumn<std::int32_t>(message, descriptor);
    case ValueKind::Int64:
      return typedColumn<std::int64_t>(message, descriptor);
    case ValueKind::Uint32:
      return typedColumn<std::uint32_t>(message, descriptor);
    case ValueKind::Uint64:
      return typedColumn<std::uint64_t>(message, descriptor);
    case ValueKind::Double:
      return typedColumn<double>(message, descriptor);
    case ValueKind::Float:
      return typedColumn<float>(message, descriptor);
    case ValueKind::Bool:
      return typedColumn<bool>(message, descriptor);
    case ValueKind::Enum:
      return list([&](int i) { return enumValue(field, reflection.GetRepeatedEnumValue(message, descriptor, i)); });
    case ValueKind::String:
      return list([&](int i) {
        return createTextOrBytes(reflection.GetRepeatedStringReference(message, descriptor, i, &scratch));
      });
    case ValueKind::Bytes:
      return list(
          [&](int i) { return createBytes(reflection.GetRepeatedStringReference(message, descriptor, i, &scratch)); });
    case ValueKind::Message:
      break;
  }
  return repeatedMessages(message, field, depth);
}

// Messages with the same fields are one struct array; else each is a struct of its own in a list.
qxArrayPtr MessageDecoder::repeatedMessages(const Message& message, const FieldShape& field, int depth) {
  const MessageShape& shape = shapes_.of(field);
  if (shape.special() != SpecialForm::None && (shape.special() != SpecialForm::AnyLayout || anys_.isAny(shape)))
    return listOfMessages(message, field, depth);
  const Reflection& reflection = *message.GetReflection();
  const int count = reflection.FieldSize(message, field.descriptor);
  Present first;
  Present other;
  if (count > 0) {
    checkDepth(shape, depth + 1);
    findPresent(reflection.GetRepeatedMessage(message, field.descriptor, 0), shape, first);
  }
  for (int i = 1; i < count; ++i) {
    findPresent(reflection.GetRepeatedMessage(message, field.descriptor, i), shape, other);
    if (other != first)
      return listOfMessages(message, field, depth);
  }
  qxArrayPtr result = createStruct(static_cast<std::size_t>(count), shape, first);
  for (int i = 0; i < count; ++i) {
    fillStruct(result.get(), static_cast<std::size_t>(i), reflection.GetRepeatedMessage(message, field.descriptor, i),
               shape, first, depth + 1);
  }
  return result;
}

qxArrayPtr MessageDecoder::listOfMessages(const Message& message, const FieldShape& field, int depth) {
  const Reflection& reflection = *message.GetReflection();
  const MessageShape& shape = shapes_.of(field);
  return listColumn(reflection.FieldSize(message, field.descriptor), [&](int i) {
    return value(reflection.GetRepeatedMessage(message, field.descriptor, i), shape, depth + 1);
  });
}

qxArrayPtr MessageDecoder::enumValue(const FieldShape& field, int number) {
  const google::protobuf::EnumValueDescriptor* named = field.descriptor->enum_type()->FindValueByNumber(number);
  if (named == nullptr)
    return createScalar<std::int32_t>(number);
  qxArrayPtr& text = enumTexts_[named];
  if (text == nullptr)
    text = qxCreateStringUtf8(named->name());
  return qxCreateSharedCopy(text.get());
}

}  // namespace parallel::protobufencoding
