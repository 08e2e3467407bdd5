// Messages from host values that are not structs with their fields.
#include "platform/protobufencoding/internal/MessageEncoder.h"

#include <algorithm>

#include "platform/protobufencoding/internal/MessageTypes.h"
#include "platform/protobufencoding/internal/encodeErrors.h"
#include "platform/protobufencoding/internal/jsonFields.h"
#include "platform/protobufencoding/internal/scalarFields.h"
#include "platform/protobufencoding/internal/timeText.h"

namespace parallel::protobufencoding {

using google::protobuf::Message;
using google::protobuf::Reflection;

namespace {

const qxArray* fieldOrNull(const qxArray* structs, std::size_t element, std::string_view name) {
  return qxHasField(structs, name) ? qxGetField(structs, element, name) : nullptr;
}

// The type that a struct says it is; empty when it says none.
std::string messageType(const qxArray* structs, std::size_t element, const FieldPath& path) {
  const qxArray* name = fieldOrNull(structs, element, kMessageTypeField);
  return name == nullptr ? "" : textFrom(name, FieldPath(path, kMessageTypeField));
}

}  // namespace

void MessageEncoder::anyContent(const Target& target, const qxArray* structs, std::size_t element,
                                const FieldPath& path) {
  const std::string type = messageType(structs, element, path);
  if (type.empty())
    throwEncodeError(path, "no field MessageType", "the full name of a message type in it");
  if (type == target.shape.fullName())
    return generalForm(target, structs, element, path);
  const auto content = MessageTypes::create(type);
  if (content == nullptr)
    throwEncodeError(FieldPath(path, kMessageTypeField), "\"" + type + "\"", "the full name of a known message type");
  const MessageShape& contentShape = shapes_.of(content->GetDescriptor());
  generalForm({*content, contentShape, target.depth + 1}, structs, element,
              bindingsOf(structs, contentShape, path, Context::AnyContent).all, path);
  checkRequired(*content, path);
  checkMessageBytes(content->ByteSizeLong(), path);
  anys_.pack(*content, target.message, target.shape);
  if (const qxArray* url = fieldOrNull(structs, element, kTypeUrlField))
    anyUrl(target, url, type, FieldPath(path, kTypeUrlField));
}

// Another URL than the usual one must lead to the same type.
void MessageEncoder::anyUrl(const Target& target, const qxArray* text, const std::string& type, const FieldPath& path) {
  const std::string url = textFrom(text, path);
  AnyMessages::setTypeUrl(target.message, url);
  const auto back = anys_.unpack(target.message, target.shape);
  if (back == nullptr || std::string_view(back->GetDescriptor()->full_name()) != type)
    throwEncodeError(path, "\"" + url + "\"", "a URL that stands for " + type);
}

void MessageEncoder::timeText(const Target& target, const qxArray* text, const FieldPath& path) {
  const bool isTimestamp = target.shape.special() == SpecialForm::Timestamp;
  const std::string found = textFrom(text, path);
  const auto time = isTimestamp ? parseTimestamp(found) : parseDuration(found);
  if (!time) {
    throwEncodeError(path, "\"" + found + "\"",
                     isTimestamp ? "a time like 2024-02-29T12:00:00.5Z, of the years 1 to 9999"
                                 : "a duration in seconds like -1.5s, of at most 10000 years");
  }
  const Reflection& reflection = target.reflection;
  reflection.SetInt64(&target.message, target.shape.number(1).descriptor, time->seconds);
  reflection.SetInt32(&target.message, target.shape.number(2).descriptor, time->nanos);
}

void MessageEncoder::fieldMaskText(const Target& target, const qxArray* text, const FieldPath& path) {
  const std::string joined = textFrom(text, path);
  for (std::size_t begin = 0; begin < joined.size();) {
    const std::size_t end = std::min(joined.find(',', begin), joined.size());
    if (end == begin || end + 1 == joined.size())
      throwEncodeError(path, "\"" + joined + "\"", "paths with single commas between them");
    target.reflection.AddString(&target.message, target.shape.number(1).descriptor, joined.substr(begin, end - begin));
    begin = end + 1;
  }
}

void MessageEncoder::jsonStruct(const Target& target, const qxArray* structs, std::size_t element,
                                const FieldPath& path) {
  if (qxHasField(structs, kMessageTypeField))
    return generalForm(target, structs, element, path);
  mapFromStruct(target, target.shape.number(1), structs, element, path);
}

void MessageEncoder::jsonValue(const Target& target, const qxArray* array, const FieldPath& path) {
  const auto set = [&](int number) { single(target, target.shape.number(number), array, path); };
  if (array == nullptr)
    throwEncodeError(path, describe(array), "a value");
  switch (qxGetClass(array)) {
    case qxClass::Text:
      return set(json::kString);
    case qxClass::Boolean:
      return set(json::kBool);
    case qxClass::List:
      return set(json::kList);
    case qxClass::Struct:
      if (!isScalar(array))
        throwEncodeError(path, describe(array), "a struct 1-by-1");
      return jsonStructValue(target, array, 0, path);
    default:
      break;
  }
  if (!qxIsNumeric(array))
    throwEncodeError(path, describe(array), "a number, text, boolean, list or struct");
  if (!isEmptyLiteral(array))
    return set(json::kNumber);
  target.reflection.SetEnumValue(&target.message, target.shape.number(json::kNull).descriptor, 0);
}

// A struct stands for a JSON object, unless it names one of the three types itself.
void MessageEncoder::jsonStructValue(const Target& target, const qxArray* structs, std::size_t element,
                                     const FieldPath& path) {
  const std::string type = messageType(structs, element, path);
  if (type == target.shape.fullName())
    return generalForm(target, structs, element, path);
  const FieldShape& field = target.shape.number(type == "google.protobuf.ListValue" ? json::kList : json::kStruct);
  Message* inner = target.reflection.MutableMessage(&target.message, field.descriptor);
  structValue(inside(target, field, *inner), structs, element, path);
}

}  // namespace parallel::protobufencoding
