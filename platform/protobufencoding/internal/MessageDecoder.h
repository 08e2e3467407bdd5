// Messages to host values, one conversion's worth: docs/message-mapping.md, left to right.
// Threads: one thread at a time per object.
#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <span>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/AnyEncoder.h"
#include "platform/protobufencoding/internal/AnyMessages.h"
#include "platform/protobufencoding/internal/MessageShapes.h"

namespace parallel::protobufencoding {

class MessageDecoder {
 public:
  explicit MessageDecoder(AnyEncoder* anyEncoder) : anys_(anyEncoder) {}

  // The struct with the message's fields. Throws DecodeTooDeep.
  qxArrayPtr generalForm(const google::protobuf::Message& message) {
    return generalForm(message, shapes_.of(message.GetDescriptor()), 0);
  }

 private:
  using Message = google::protobuf::Message;

  // A message beside its reflection, which costs more to ask for than a field.
  struct Source {
    Source(const Message& theMessage)  // NOLINT(google-explicit-constructor)
        : Source(theMessage, *theMessage.GetReflection()) {}
    Source(const Message& theMessage, const google::protobuf::Reflection& itsReflection)
        : message(theMessage), reflection(itsReflection) {}

    const Message& message;
    const google::protobuf::Reflection& reflection;
  };

  void checkDepth(const MessageShape& shape, int depth) const;

  // `depth`: messages around this one.
  qxArrayPtr generalForm(const Source& source, const MessageShape& shape, int depth);
  // The special form where the message has one that loses nothing, else the general form.
  qxArrayPtr value(const Source& source, const MessageShape& shape, int depth);
  qxArrayPtr specialForm(const Source& source, const MessageShape& shape, int depth);  // null: none without a loss

  // Which of its fields the message has.
  StructLayoutPtr layoutOf(const Source& source, const MessageShape& shape);
  bool fits(const StructLayout& layout, const Source& source, const MessageShape& shape);
  void findPresent(const Source& source, const MessageShape& shape);
  bool presentIsExtended() const { return !present_.empty() && present_.back()->descriptor->is_extension(); }
  StructLayoutPtr presentLayout(const MessageShape& shape, bool unknown);
  static bool hasUnknownFields(const Source& source) {
    return !source.reflection.GetUnknownFields(source.message).empty();
  }
  void fillStruct(std::vector<qxArrayPtr>& values, std::size_t element, std::size_t count, const Source& source,
                  const MessageShape& shape, const StructLayout& layout, int depth);

  qxArrayPtr field(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr single(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr message(const Source& source, const FieldShape& field, const Message& inner, int depth);
  qxArrayPtr repeated(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr repeatedMessages(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr listOfMessages(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr enumValue(const FieldShape& field, int number);

  qxArrayPtr map(const Source& source, const FieldShape& field, int depth);
  qxArrayPtr mapAsStruct(std::span<const Message* const> entries, const MessageShape& entry, int depth);
  qxArrayPtr mapAsEntries(std::span<const Message* const> entries, const MessageShape& entry, int depth);
  qxArrayPtr mapAsList(std::span<const Message* const> entries, const MessageShape& entry, int depth);
  qxArrayPtr mapValue(const Message& message, const MessageShape& entry, int depth);

  qxArrayPtr anyContent(const Message& message, const MessageShape& shape, int depth);
  qxArrayPtr contentWithin(int deepest, const Message& content, const MessageShape& shape, int depth);
  qxArrayPtr timeText(const Source& source, const MessageShape& shape);
  qxArrayPtr fieldMaskText(const Source& source, const MessageShape& shape);
  qxArrayPtr jsonStruct(const Source& source, const MessageShape& shape, int depth);
  qxArrayPtr jsonValue(const Source& source, const MessageShape& shape, int depth);

  // The parser has made one message more when it finds that they nest too deep.
  int deepest_ = kMaxMessageNesting + 1;
  MessageShapes shapes_;
  AnyMessages anys_;
  std::vector<const FieldShape*> present_;  // what findPresent found
  // Of the last message of each type that had not all fields: the next one mostly has the same.
  std::map<const MessageShape*, StructLayoutPtr> lastLayouts_;
  std::map<const google::protobuf::EnumValueDescriptor*, qxArrayPtr> enumTexts_;
};

}  // namespace parallel::protobufencoding
