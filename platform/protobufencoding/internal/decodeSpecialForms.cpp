// Messages whose value is not a struct with their fields. Each function returns null where the special form would lose
// something, and then the general form is used.
#include <google/protobuf/unknown_field_set.h>

#include <utility>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/MessageDecoder.h"
#include "platform/protobufencoding/internal/hostValues.h"
#include "platform/protobufencoding/internal/jsonFields.h"
#include "platform/protobufencoding/internal/timeText.h"
#include "platform/protobufencoding/protobufencoding.h"

namespace parallel::protobufencoding {

using google::protobuf::Message;

qxArrayPtr MessageDecoder::specialForm(const Source& source, const MessageShape& shape, int depth) {
  if (hasUnknownFields(source))
    return nullptr;
  switch (shape.special()) {
    case SpecialForm::AnyLayout:
      return anyContent(source.message, shape, depth);
    case SpecialForm::Timestamp:
    case SpecialForm::Duration:
      return timeText(source, shape);
    case SpecialForm::Wrapper:
      return single(source, shape.number(1), depth);
    case SpecialForm::Struct:
      return jsonStruct(source, shape, depth);
    case SpecialForm::Value:
      return jsonValue(source, shape, depth);
    case SpecialForm::ListValue:
      return listOfMessages(source, shape.number(1), depth);
    case SpecialForm::FieldMask:
      return fieldMaskText(source, shape);
    case SpecialForm::None:
      break;
  }
  return nullptr;
}

// The struct of the message inside. An Any in an Any stays as it is, or nobody could tell which of them the struct
// means.
qxArrayPtr MessageDecoder::anyContent(const Message& message, const MessageShape& shape, int depth) {
  if (!anys_.isAny(shape))
    return nullptr;
  const auto content = anys_.unpack(message, shape);
  if (content == nullptr)
    return nullptr;
  const MessageShape& contentShape = shapes_.of(content->GetDescriptor());
  if (anys_.isAny(contentShape))
    return nullptr;
  const std::string url = AnyMessages::typeUrl(message);
  const bool usualUrl = url.empty() || url == getTypeUrl(*content);  // empty: it stands for this type
  if (!fl::i18n::isWellFormed(url))
    return nullptr;
  qxArrayPtr result = contentWithin(kMaxMessageNesting, *content, contentShape, depth + 1);
  if (result != nullptr && !usualUrl)
    qxSetField(result.get(), 0, kTypeUrlField, qxCreateStringUtf8(url));
  return result;
}

// The content's general form; null when it lies deeper than encode would take it. Its bytes are then still whole.
qxArrayPtr MessageDecoder::contentWithin(int deepest, const Message& content, const MessageShape& shape, int depth) {
  const int outer = std::exchange(deepest_, deepest);
  qxArrayPtr result;
  try {
    result = generalForm(content, shape, depth);
  } catch (const Exception<::parallel::protobuf::DecodeTooDeep>&) {
    result = nullptr;
  }
  deepest_ = outer;
  return result;
}

qxArrayPtr MessageDecoder::timeText(const Source& source, const MessageShape& shape) {
  const SecondsAndNanos time{source.reflection.GetInt64(source.message, shape.number(1).descriptor),
                             source.reflection.GetInt32(source.message, shape.number(2).descriptor)};
  const auto text = shape.special() == SpecialForm::Timestamp ? formatTimestamp(time) : formatDuration(time);
  return text ? qxCreateStringUtf8(*text) : nullptr;
}

qxArrayPtr MessageDecoder::fieldMaskText(const Source& source, const MessageShape& shape) {
  const auto* paths = shape.number(1).descriptor;
  std::string joined;
  for (int i = 0; i < source.reflection.FieldSize(source.message, paths); ++i) {
    const std::string path = source.reflection.GetRepeatedString(source.message, paths, i);
    if (path.empty() || path.find(',') != std::string::npos || !fl::i18n::isWellFormed(path))
      return nullptr;
    joined.append(joined.empty() ? "" : ",").append(path);
  }
  return qxCreateStringUtf8(joined);
}

// A key called like the field that marks general forms would make the struct look like one.
qxArrayPtr MessageDecoder::jsonStruct(const Source& source, const MessageShape& shape, int depth) {
  qxArrayPtr fields = map(source, shape.number(1), depth);
  const bool plain = qxGetClass(fields.get()) == qxClass::Struct && !qxHasField(fields.get(), kMessageTypeField);
  return plain ? std::move(fields) : nullptr;
}

qxArrayPtr MessageDecoder::jsonValue(const Source& source, const MessageShape& shape, int depth) {
  const FieldShape& null = shape.number(json::kNull);
  if (source.reflection.HasField(source.message, null.descriptor)) {
    const bool isNull = source.reflection.GetEnumValue(source.message, null.descriptor) == 0;
    return isNull ? qxCreateNumericArray(std::array<std::size_t, 2>{0, 0}, qxClass::Float64) : nullptr;
  }
  const FieldShape& string = shape.number(json::kString);
  if (source.reflection.HasField(source.message, string.descriptor)) {
    const std::string text = source.reflection.GetString(source.message, string.descriptor);
    return fl::i18n::isWellFormed(text) ? qxCreateStringUtf8(text) : nullptr;
  }
  for (const int number : {json::kNumber, json::kBool, json::kStruct, json::kList}) {
    const FieldShape& field = shape.number(number);
    if (source.reflection.HasField(source.message, field.descriptor))
      return single(source, field, depth);
  }
  return nullptr;  // no kind at all
}

}  // namespace parallel::protobufencoding
