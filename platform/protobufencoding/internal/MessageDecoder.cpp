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

qxArrayPtr textOrBytes(const FieldShape& field, const std::string& bytes) {
  return field.kind == ValueKind::String ? createTextOrBytes(bytes) : createBytes(bytes);
}

}  // namespace

void MessageDecoder::checkDepth(const MessageShape& shape, int depth) const {
  if (depth > deepest_)
    throw Exception<::parallel::protobuf::DecodeTooDeep>(shape.fullName(), kMaxMessageNesting);
}

qxArrayPtr MessageDecoder::generalForm(const Source& source, const MessageShape& shape, int depth) {
  checkDepth(shape, depth);
  const StructLayoutPtr layout = layoutOf(source, shape);
  std::vector<qxArrayPtr> values(layout->bindings().size());
  fillStruct(values, 0, 1, source, shape, *layout, depth);
  return qxCreateStructWithNames(column(1), layout->names(), std::move(values));
}

qxArrayPtr MessageDecoder::value(const Source& source, const MessageShape& shape, int depth) {
  if (shape.special() != SpecialForm::None) {
    checkDepth(shape, depth);
    if (qxArrayPtr special = specialForm(source, shape, depth))
      return special;
  }
  return generalForm(source, shape, depth);
}

StructLayoutPtr MessageDecoder::layoutOf(const Source& source, const MessageShape& shape) {
  const bool unknown = hasUnknownFields(source);
  if (!unknown && !shape.presenceVaries())
    return shape.fullLayout();
  findPresent(source, shape);
  if (!unknown && present_.size() == shape.allFields().size() && !presentIsExtended())
    return shape.fullLayout();
  StructLayoutPtr& last = lastLayouts_[&shape];
  if (last == nullptr || !last->has(present_, unknown))
    last = presentLayout(shape, unknown);
  return last;
}

StructLayoutPtr MessageDecoder::presentLayout(const MessageShape& shape, bool unknown) {
  // The shapes of extensions end with this conversion.
  return presentIsExtended() ? std::make_shared<const StructLayout>(shape.namesType(), present_, unknown)
                             : shape.layouts().find(shape.namesType(), present_, unknown);
}

bool MessageDecoder::fits(const StructLayout& layout, const Source& source, const MessageShape& shape) {
  const bool unknown = hasUnknownFields(source);
  if (!shape.presenceVaries())
    return layout.hasUnknown() == unknown;
  findPresent(source, shape);
  return layout.has(present_, unknown);
}

void MessageDecoder::findPresent(const Source& source, const MessageShape& shape) {
  present_.clear();
  for (const FieldShape* field : shape.allFields()) {
    if (!field->hasPresence || source.reflection.HasField(source.message, field->descriptor))
      present_.push_back(field);
  }
  if (!shape.isExtendable())
    return;
  std::vector<const FieldDescriptor*> set;
  source.reflection.ListFields(source.message, &set);
  for (const FieldDescriptor* field : set) {
    if (field->is_extension())
      present_.push_back(&shapes_.ofExtension(field));
  }
}

inline qxArrayPtr MessageDecoder::field(const Source& source, const FieldShape& field, int depth) {
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

// The values of one of `count` structs, as qxCreateStructWithNames wants them.
void MessageDecoder::fillStruct(std::vector<qxArrayPtr>& values, std::size_t element, std::size_t count,
                                const Source& source, const MessageShape& shape, const StructLayout& layout,
                                int depth) {
  std::size_t place = element;
  const auto put = [&](qxArrayPtr value) {
    values[place] = std::move(value);
    place += count;
  };
  if (shape.namesType())
    put(qxCreateSharedCopy(shape.typeArray()));
  for (const FieldBinding& binding : layout.fields())
    put(field(source, *binding.field, depth));
  if (layout.hasUnknown())
    put(createBytes(encodedUnknownFields(source.reflection.GetUnknownFields(source.message))));
}

qxArrayPtr MessageDecoder::single(const Source& source, const FieldShape& field, int depth) {
  const FieldDescriptor* descriptor = field.descriptor;
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
    case ValueKind::Bytes: {
      std::string scratch;
      return textOrBytes(field, source.reflection.GetStringReference(source.message, descriptor, &scratch));
    }
    case ValueKind::Message:
      break;
  }
  return message(source, field, source.reflection.GetMessage(source.message, descriptor), depth + 1);
}

qxArrayPtr MessageDecoder::message(const Source& source, const FieldShape& field, const Message& inner, int depth) {
  const MessageShape& shape = shapes_.of(field);
  return value({inner, shape.reflectionIn(source.reflection, field, inner)}, shape, depth);
}

qxArrayPtr MessageDecoder::repeated(const Source& source, const FieldShape& field, int depth) {
  const FieldDescriptor* descriptor = field.descriptor;
  const auto list = [&](auto element) {
    return listColumn(source.reflection.FieldSize(source.message, descriptor), element);
  };
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
    case ValueKind::Bytes:
      return list([&, scratch = std::string()](int i) mutable {
        return textOrBytes(field,
                           source.reflection.GetRepeatedStringReference(source.message, descriptor, i, &scratch));
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
  const StructLayoutPtr layout = layoutOf({element(0), reflection}, shape);
  for (int i = 1; i < count; ++i) {
    if (!fits(*layout, {element(i), reflection}, shape))
      return listOfMessages(source, field, depth);
  }
  std::vector<qxArrayPtr> values(layout->bindings().size() * static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i)
    fillStruct(values, static_cast<std::size_t>(i), static_cast<std::size_t>(count), {element(i), reflection}, shape,
               *layout, depth + 1);
  return qxCreateStructWithNames(column(static_cast<std::size_t>(count)), layout->names(), std::move(values));
}

qxArrayPtr MessageDecoder::listOfMessages(const Source& source, const FieldShape& field, int depth) {
  return listColumn(source.reflection.FieldSize(source.message, field.descriptor), [&](int i) {
    return message(source, field, source.reflection.GetRepeatedMessage(source.message, field.descriptor, i), depth + 1);
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
