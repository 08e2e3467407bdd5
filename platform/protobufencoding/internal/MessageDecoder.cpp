#include "platform/protobufencoding/internal/MessageDecoder.h"

#include <google/protobuf/reflection.h>
#include <google/protobuf/unknown_field_set.h>

#include <algorithm>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/hostValues.h"
#include "platform/protobufencoding/internal/unknownFields.h"

namespace parallel::protobufencoding {

using google::protobuf::FieldDescriptor;

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

// Most lists of a message have no elements.
qxArrayPtr emptyList() {
  static const auto* const list = new qxArrayPtr(qxCreateListArray(column(0)));  // never destroyed, as shapes are not
  return qxCreateSharedCopy(list->get());
}

template <class Element>
qxArrayPtr listColumn(int count, Element element) {
  if (count == 0)
    return emptyList();
  qxArrayPtr list = qxCreateListArray(column(static_cast<std::size_t>(count)));
  for (int i = 0; i < count; ++i)
    qxSetListElement(list.get(), static_cast<std::size_t>(i), element(i));
  return list;
}

bool equal(std::span<const FieldShape* const> left, std::span<const FieldShape* const> right) {
  return std::equal(left.begin(), left.end(), right.begin(), right.end());
}

}  // namespace

void MessageDecoder::checkDepth(const MessageShape& shape, int depth) const {
  if (depth > deepest_)
    throw Exception<::parallel::protobuf::DecodeTooDeep>(shape.fullName(), kMaxMessageNesting);
}

qxArrayPtr MessageDecoder::generalForm(const Source& source, const MessageShape& shape, int depth) {
  checkDepth(shape, depth);
  Present present;
  findPresent(source, shape, present);
  qxArrayPtr result = createStruct(1, shape, present);
  fillStruct(result.get(), 0, source, shape, present, depth);
  return result;
}

qxArrayPtr MessageDecoder::value(const Source& source, const MessageShape& shape, int depth) {
  checkDepth(shape, depth);
  if (qxArrayPtr special = specialForm(source, shape, depth))
    return special;
  return generalForm(source, shape, depth);
}

void MessageDecoder::findPresent(const Source& source, const MessageShape& shape, Present& present) {
  present.unknown = !source.reflection.GetUnknownFields(source.message).empty();
  present.fields = shape.allFields();
  if (!shape.presenceVaries())
    return;
  present.some.clear();
  present.some.reserve(present.fields.size());
  for (const FieldShape* field : shape.allFields()) {
    if (!field->hasPresence || source.reflection.HasField(source.message, field->descriptor))
      present.some.push_back(field);
  }
  bool all = present.some.size() == present.fields.size();
  if (shape.isExtendable())
    all = !addExtensions(source, present.some) && all;
  if (!all)
    present.fields = present.some;
}

bool MessageDecoder::addExtensions(const Source& source, std::vector<const FieldShape*>& fields) {
  const std::size_t before = fields.size();
  std::vector<const FieldDescriptor*> set;
  source.reflection.ListFields(source.message, &set);
  for (const FieldDescriptor* field : set) {
    if (field->is_extension())
      fields.push_back(&shapes_.ofExtension(field));
  }
  return fields.size() > before;
}

bool MessageDecoder::hasPresent(const Source& source, const MessageShape& shape, const Present& present,
                                Present& scratch) {
  findPresent(source, shape, scratch);
  return scratch.unknown == present.unknown && equal(scratch.fields, present.fields);
}

qxArrayPtr MessageDecoder::createStruct(std::size_t count, const MessageShape& shape, const Present& present) {
  return qxCreateStructWithNames(column(count), fieldNames(shape, present));
}

// Entries of maps name no type: they are not messages to users.
const qxFieldNamesPtr& MessageDecoder::fieldNames(const MessageShape& shape, const Present& present) {
  if (isAll(shape, present) && !present.unknown)
    return shape.structFieldNames();
  PartialNames& last = partialNames_[&shape];
  if (last.names != nullptr && last.unknown == present.unknown && equal(last.fields, present.fields))
    return last.names;
  last.fields.assign(present.fields.begin(), present.fields.end());
  last.unknown = present.unknown;
  // The shapes of extensions end with this conversion.
  const bool extended = !present.fields.empty() && present.fields.back()->descriptor->is_extension();
  last.names = extended ? PartialFieldNames::make(!shape.isMapEntry(), present.fields, present.unknown)
                        : shape.partialFieldNames().find(!shape.isMapEntry(), present.fields, present.unknown);
  return last.names;
}

// In the order of fieldNames.
void MessageDecoder::fillStruct(qxArray* target, std::size_t element, const Source& source, const MessageShape& shape,
                                const Present& present, int depth) {
  std::size_t place = 0;
  if (!shape.isMapEntry())
    qxSetFieldAt(target, element, place++, qxCreateSharedCopy(shape.typeArray()));
  for (const FieldShape* present_field : present.fields)
    qxSetFieldAt(target, element, place++, field(source, *present_field, depth));
  if (present.unknown)
    qxSetFieldAt(target, element, place,
                 createBytes(encodedUnknownFields(source.reflection.GetUnknownFields(source.message))));
}

qxArrayPtr MessageDecoder::field(const Source& source, const FieldShape& field, int depth) {
  switch (field.cardinality) {
    case Cardinality::Single:
      return single(source, field, depth);
    case Cardinality::Repeated:
      return repeated(source, field, depth);
    case Cardinality::Map:
      break;
  }
  return map(source, field, depth);
}

qxArrayPtr MessageDecoder::single(const Source& source, const FieldShape& field, int depth) {
  const FieldDescriptor* descriptor = field.descriptor;
  std::string scratch;
  switch (field.kind) {
    case ValueKind::Int32:
      return qxCreateScalarOf<std::int32_t>(source.reflection.GetInt32(source.message, descriptor));
    case ValueKind::Int64:
      return qxCreateScalarOf<std::int64_t>(source.reflection.GetInt64(source.message, descriptor));
    case ValueKind::Uint32:
      return qxCreateScalarOf<std::uint32_t>(source.reflection.GetUInt32(source.message, descriptor));
    case ValueKind::Uint64:
      return qxCreateScalarOf<std::uint64_t>(source.reflection.GetUInt64(source.message, descriptor));
    case ValueKind::Double:
      return qxCreateScalarOf(source.reflection.GetDouble(source.message, descriptor));
    case ValueKind::Float:
      return qxCreateScalarOf(source.reflection.GetFloat(source.message, descriptor));
    case ValueKind::Bool:
      return qxCreateScalarOf(source.reflection.GetBool(source.message, descriptor));
    case ValueKind::Enum:
      return enumValue(field, source.reflection.GetEnumValue(source.message, descriptor));
    case ValueKind::String:
      return createTextOrBytes(source.reflection.GetStringReference(source.message, descriptor, &scratch));
    case ValueKind::Bytes:
      return createBytes(source.reflection.GetStringReference(source.message, descriptor, &scratch));
    case ValueKind::Message:
      break;
  }
  return value(source.reflection.GetMessage(source.message, descriptor), shapes_.of(field), depth + 1);
}

qxArrayPtr MessageDecoder::repeated(const Source& source, const FieldShape& field, int depth) {
  const FieldDescriptor* descriptor = field.descriptor;
  const auto list = [&](auto element) {
    return listColumn(source.reflection.FieldSize(source.message, descriptor), element);
  };
  std::string scratch;
  switch (field.kind) {
    case ValueKind::Int32:
      return typedColumn<std::int32_t>(source.message, descriptor);
    case ValueKind::Int64:
      return typedColumn<std::int64_t>(source.message, descriptor);
    case ValueKind::Uint32:
      return typedColumn<std::uint32_t>(source.message, descriptor);
    case ValueKind::Uint64:
      return typedColumn<std::uint64_t>(source.message, descriptor);
    case ValueKind::Double:
      return typedColumn<double>(source.message, descriptor);
    case ValueKind::Float:
      return typedColumn<float>(source.message, descriptor);
    case ValueKind::Bool:
      return typedColumn<bool>(source.message, descriptor);
    case ValueKind::Enum:
      return list([&](int i) {
        return enumValue(field, source.reflection.GetRepeatedEnumValue(source.message, descriptor, i));
      });
    case ValueKind::String:
      return list([&](int i) {
        return createTextOrBytes(source.reflection.GetRepeatedStringReference(source.message, descriptor, i, &scratch));
      });
    case ValueKind::Bytes:
      return list([&](int i) {
        return createBytes(source.reflection.GetRepeatedStringReference(source.message, descriptor, i, &scratch));
      });
    case ValueKind::Message:
      break;
  }
  return repeatedMessages(source, field, depth);
}

// Messages with the same fields are one struct array; else each is a struct of its own in a list.
qxArrayPtr MessageDecoder::repeatedMessages(const Source& source, const FieldShape& field, int depth) {
  const MessageShape& shape = shapes_.of(field);
  if (shape.special() != SpecialForm::None && (shape.special() != SpecialForm::AnyLayout || anys_.isAny(shape)))
    return listOfMessages(source, field, depth);
  const int count = source.reflection.FieldSize(source.message, field.descriptor);
  if (count == 0)
    return qxCreateSharedCopy(shape.emptyArray());
  checkDepth(shape, depth + 1);
  const auto element = [&](int i) -> const Message& {
    return source.reflection.GetRepeatedMessage(source.message, field.descriptor, i);
  };
  const google::protobuf::Reflection& reflection = *element(0).GetReflection();
  Present first;
  Present other;
  findPresent({element(0), reflection}, shape, first);
  for (int i = 1; i < count; ++i) {
    if (!hasPresent({element(i), reflection}, shape, first, other))
      return listOfMessages(source, field, depth);
  }
  qxArrayPtr result = createStruct(static_cast<std::size_t>(count), shape, first);
  for (int i = 0; i < count; ++i)
    fillStruct(result.get(), static_cast<std::size_t>(i), {element(i), reflection}, shape, first, depth + 1);
  return result;
}

qxArrayPtr MessageDecoder::listOfMessages(const Source& source, const FieldShape& field, int depth) {
  const MessageShape& shape = shapes_.of(field);
  return listColumn(source.reflection.FieldSize(source.message, field.descriptor), [&](int i) {
    return value(source.reflection.GetRepeatedMessage(source.message, field.descriptor, i), shape, depth + 1);
  });
}

qxArrayPtr MessageDecoder::enumValue(const FieldShape& field, int number) {
  const google::protobuf::EnumValueDescriptor* named = field.descriptor->enum_type()->FindValueByNumber(number);
  if (named == nullptr)
    return qxCreateScalarOf<std::int32_t>(number);
  qxArrayPtr& text = enumTexts_[named];
  if (text == nullptr)
    text = qxCreateStringUtf8(named->name());
  return qxCreateSharedCopy(text.get());
}

}  // namespace parallel::protobufencoding
