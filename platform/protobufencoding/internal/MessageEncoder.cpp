#include "platform/protobufencoding/internal/MessageEncoder.h"

#include <google/protobuf/unknown_field_set.h>

#include "platform/protobufencoding/internal/MessageTypes.h"
#include "platform/protobufencoding/internal/encodeErrors.h"
#include "platform/protobufencoding/internal/scalarFields.h"

namespace parallel::protobufencoding {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

namespace {

bool hasTextForm(SpecialForm form) {
  return form == SpecialForm::Timestamp || form == SpecialForm::Duration || form == SpecialForm::FieldMask;
}

void checkIsStruct(const qxArray* array, const MessageShape& shape, const FieldPath& path) {
  if (array != nullptr && qxGetClass(array) == qxClass::Struct && isScalar(array))
    return;
  const std::string other = hasTextForm(shape.special()) ? "a text row or " : "";
  throwEncodeError(path, describe(array), other + "a struct 1-by-1 (" + shape.fullName() + ")");
}

}  // namespace

std::unique_ptr<Message> MessageEncoder::encode(const qxArray* value) {
  const FieldPath root("the value");
  if (value == nullptr || qxGetClass(value) != qxClass::Struct || !isScalar(value))
    throwEncodeError(root, describe(value), "a struct 1-by-1");
  if (!qxHasField(value, kMessageTypeField))
    throwEncodeError(root, "no field MessageType", "the full name of a message type in it");
  const qxArray* name = qxGetField(value, 0, kMessageTypeField);
  if (const CompiledType* type = MessageShapes::compiledType(name)) {
    std::unique_ptr<Message> message(type->empty->New());
    fill(*message, type->shape, value);
    return message;
  }
  auto message = createNamed(name, FieldPath(root, kMessageTypeField));
  fill(*message, shapes_.of(message->GetDescriptor()), value);
  return message;
}

std::unique_ptr<Message> MessageEncoder::createNamed(const qxArray* name, const FieldPath& path) {
  const std::string type = textFrom(name, path);
  auto message = MessageTypes::create(type);
  if (message == nullptr)
    throwEncodeError(path, "\"" + type + "\"", "the full name of a known message type");
  return message;
}

void MessageEncoder::fill(Message& message, const MessageShape& shape, const qxArray* value) {
  const FieldPath path(shape.fullName());
  generalForm({message, shape, 0}, value, 0, path);
  checkRequired(message, path);
}

MessageEncoder::Bindings MessageEncoder::bindingsOf(const qxArray* structs, const MessageShape& shape,
                                                    const FieldPath& path, Context context) {
  if (shape.fullLayout()->isOf(structs))
    return {shape.fullLayout()->bindings()};
  if (StructLayoutPtr layout = shape.layouts().findOf(structs))
    return {layout->bindings(), std::move(layout)};
  std::vector<FieldBinding> own = bind(structs, shape, path, context);
  const std::span<const FieldBinding> all = own;
  return {all, nullptr, std::move(own)};
}

std::vector<FieldBinding> MessageEncoder::bind(const qxArray* structs, const MessageShape& shape, const FieldPath& path,
                                               Context context) {
  const std::span<const std::string> names = qxGetFieldNames(structs);
  std::vector<FieldBinding> bindings;
  bindings.reserve(names.size());
  MessageShape::Search search(shape);
  for (const std::string& name : names) {
    if (name == kMessageTypeField) {  // never the name of a message's field
      bindings.push_back({FieldBinding::Role::MessageType, nullptr});
      continue;
    }
    const FieldShape* field = search.find(name);
    bindings.push_back(field != nullptr ? FieldBinding{FieldBinding::Role::Field, field}
                                        : bindOther(name, shape, path, context));
  }
  return bindings;
}

FieldBinding MessageEncoder::bindOther(const std::string& name, const MessageShape& shape, const FieldPath& path,
                                       Context context) {
  if (name == kUnknownFieldsField && !shape.isMapEntry())  // protobuf would drop them
    return {FieldBinding::Role::UnknownFields, nullptr};
  if (name == kTypeUrlField && context == Context::AnyContent)
    return {FieldBinding::Role::TypeUrl, nullptr};
  if (name.starts_with('[') && name.ends_with(']')) {
    const std::string extension = name.substr(1, name.size() - 2);
    const auto* pool = shape.descriptor()->file()->pool();
    const FieldDescriptor* field = pool->FindExtensionByName(extension);
    if (field != nullptr && field->containing_type() == shape.descriptor())
      return {FieldBinding::Role::Field, &shapes_.ofExtension(field)};
  }
  throwEncodeError(path, "the field \"" + name + "\"",
                   "fields of " + shape.fullName() + " (" + shape.fieldNames() + ")");
}

void MessageEncoder::checkDepth(const Target& target, const FieldPath& path) {
  if (target.depth <= kMaxMessageNesting)
    return;
  throwEncodeError(path, "more than " + std::to_string(kMaxMessageNesting) + " levels of messages",
                   "at most " + std::to_string(kMaxMessageNesting));
}

void MessageEncoder::generalForm(const Target& target, const qxArray* structs, std::size_t element,
                                 const FieldPath& path) {
  generalForm(target, structs, element, bindingsOf(structs, target.shape, path, Context::Plain).all, path);
}

void MessageEncoder::generalForm(const Target& target, const qxArray* structs, std::size_t element,
                                 std::span<const FieldBinding> bindings, const FieldPath& path) {
  checkDepth(target, path);
  const std::span<const std::string> names = qxGetFieldNames(structs);
  for (std::size_t place = 0; place < bindings.size(); ++place) {
    const FieldBinding& binding = bindings[place];
    const qxArray* array = qxGetFieldAt(structs, element, place);
    if (array == nullptr)
      continue;
    const FieldPath fieldPath(path, names[place]);
    switch (binding.role) {
      case FieldBinding::Role::MessageType:
        checkMessageType(target.shape, array, fieldPath);
        break;
      case FieldBinding::Role::UnknownFields:
        setUnknownFields(target.message, array, fieldPath);
        break;
      case FieldBinding::Role::TypeUrl:
        break;
      case FieldBinding::Role::Field:
        if (binding.field->oneof != nullptr)
          checkOneof(target, *binding.field, fieldPath);
        field(target, *binding.field, array, fieldPath);
        break;
    }
  }
}

void MessageEncoder::checkMessageType(const MessageShape& shape, const qxArray* name, const FieldPath& path) {
  // Structs of one type mostly have one text, whose bytes then are the same ones.
  if (isSameText(name, shape.typeArray()) || isText(name, shape.typeText()))
    return;
  throwEncodeError(path, "\"" + textFrom(name, path) + "\"", "\"" + shape.fullName() + "\"");
}

void MessageEncoder::setUnknownFields(Message& message, const qxArray* bytes, const FieldPath& path) {
  checkCount(bytes, path);
  const std::string wire = bytesFrom(bytes, path);
  if (!message.GetReflection()->MutableUnknownFields(&message)->ParseFromString(wire))
    throwEncodeError(path, "bytes that are not encoded fields", "encoded fields");
}

void MessageEncoder::checkOneof(const Target& target, const FieldShape& field, const FieldPath& path) {
  if (!target.reflection.HasOneof(target.message, field.oneof))
    return;
  const FieldDescriptor* other = target.reflection.GetOneofFieldDescriptor(target.message, field.oneof);
  throwEncodeError(path, "also the field \"" + std::string(other->name()) + "\"",
                   "only one member of the oneof \"" + std::string(field.oneof->name()) + "\"");
}

void MessageEncoder::checkRequired(const Message& message, const FieldPath& path) {
  if (message.IsInitialized())
    return;
  std::vector<std::string> missing;
  message.FindInitializationErrors(&missing);
  throwEncodeError(FieldPath(path, missing.front()), "no value", "one, for the field is required");
}

void MessageEncoder::value(const Target& target, const qxArray* array, const FieldPath& path) {
  const SpecialForm special = target.shape.special();
  if (special == SpecialForm::None) {
    checkIsStruct(array, target.shape, path);
    return generalForm(target, array, 0, path);
  }
  checkDepth(target, path);
  const bool isStruct = array != nullptr && qxGetClass(array) == qxClass::Struct;
  if (special == SpecialForm::Value)
    return jsonValue(target, array, path);
  if (special == SpecialForm::Wrapper && !isStruct)
    return single(target, target.shape.number(1), array, path);
  if (special == SpecialForm::ListValue && !isStruct)
    return repeated(target, target.shape.number(1), array, path);
  if (hasTextForm(special) && array != nullptr && qxGetClass(array) == qxClass::Text)
    return special == SpecialForm::FieldMask ? fieldMaskText(target, array, path) : timeText(target, array, path);
  checkIsStruct(array, target.shape, path);
  structValue(target, array, 0, path);
}

void MessageEncoder::structValue(const Target& target, const qxArray* structs, std::size_t element,
                                 const FieldPath& path) {
  checkDepth(target, path);
  if (target.shape.special() == SpecialForm::Struct)
    return jsonStruct(target, structs, element, path);
  if (target.shape.special() == SpecialForm::Value)
    return jsonStructValue(target, structs, element, path);
  if (anys_.isAny(target.shape))
    return anyContent(target, structs, element, path);
  generalForm(target, structs, element, path);
}

}  // namespace parallel::protobufencoding
