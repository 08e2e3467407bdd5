// Host values to messages, one conversion's worth: docs/message-mapping.md, right to left.
// Threads: one thread at a time per object.
// Errors:  EncodeError.
#pragma once

#include <google/protobuf/message.h>

#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/AnyEncoder.h"
#include "platform/protobufencoding/internal/AnyMessages.h"
#include "platform/protobufencoding/internal/FieldPath.h"
#include "platform/protobufencoding/internal/MessageShapes.h"

namespace parallel::protobufencoding {

class MessageEncoder {
 public:
  explicit MessageEncoder(AnyEncoder* anyEncoder) : anys_(anyEncoder) {}

  // The message that a 1-by-1 struct in general form describes.
  std::unique_ptr<google::protobuf::Message> encode(const qxArray* value);

 private:
  using Message = google::protobuf::Message;

  // What the fields of a struct array mean, in the order of their names.
  struct Bindings {
    std::span<const FieldBinding> all;
    StructLayoutPtr layout = nullptr;    // which keeps them, or
    std::vector<FieldBinding> own = {};  // they are these
  };

  // Where a value goes: `depth` messages are around the message.
  struct Target {
    Target(Message& theMessage, const MessageShape& theShape, int theDepth)
        : Target(theMessage, *theMessage.GetReflection(), theShape, theDepth) {}
    Target(Message& theMessage, const google::protobuf::Reflection& itsReflection, const MessageShape& theShape,
           int theDepth)
        : message(theMessage), reflection(itsReflection), shape(theShape), depth(theDepth) {}

    Message& message;
    const google::protobuf::Reflection& reflection;  // costs more to ask for than a field
    const MessageShape& shape;
    int depth;
  };

  // Whether a TypeUrl may stand beside the fields.
  enum class Context { Plain, AnyContent };

  static std::unique_ptr<Message> createNamed(const qxArray* name, const FieldPath& path);
  void fill(Message& message, const MessageShape& shape, const qxArray* value);

  Bindings bindingsOf(const qxArray* structs, const MessageShape& shape, const FieldPath& path, Context context);
  std::vector<FieldBinding> bind(const qxArray* structs, const MessageShape& shape, const FieldPath& path,
                                 Context context);
  FieldBinding bindOther(const std::string& name, const MessageShape& shape, const FieldPath& path, Context context);
  static void checkDepth(const Target& target, const FieldPath& path);
  void generalForm(const Target& target, const qxArray* structs, std::size_t element,
                   std::span<const FieldBinding> bindings, const FieldPath& path);
  void generalForm(const Target& target, const qxArray* structs, std::size_t element, const FieldPath& path);
  static void checkMessageType(const MessageShape& shape, const qxArray* name, const FieldPath& path);
  void setUnknownFields(Message& message, const qxArray* bytes, const FieldPath& path);
  // Of a field that is a member of a oneof.
  static void checkOneof(const Target& target, const FieldShape& field, const FieldPath& path);
  static void checkRequired(const Message& message, const FieldPath& path);

  // The message that an array stands for by itself, in special or general form.
  void value(const Target& target, const qxArray* array, const FieldPath& path);
  // The same for one element of a struct array.
  void structValue(const Target& target, const qxArray* structs, std::size_t element, const FieldPath& path);

  void field(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void single(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void repeated(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void repeatedEnums(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void repeatedStrings(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void repeatedMessages(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void structArray(const Target& target, const FieldShape& field, const qxArray* structs, const FieldPath& path);
  // A message in a field of the target.
  Target inside(const Target& target, const FieldShape& field, Message& inner);
  Target add(const Target& target, const FieldShape& field);

  void map(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void mapFromStruct(const Target& target, const FieldShape& field, const qxArray* structs, std::size_t element,
                     const FieldPath& path);
  void mapFromEntries(const Target& target, const FieldShape& field, const qxArray* array, const FieldPath& path);
  void mapEntry(const Target& entry, const qxArray* structs, std::size_t element, const FieldPath& path);
  void checkKeys(const Target& target, const FieldShape& field, const FieldPath& path);

  void anyContent(const Target& target, const qxArray* structs, std::size_t element, const FieldPath& path);
  void anyUrl(const Target& target, const qxArray* text, const std::string& type, const FieldPath& path);
  void timeText(const Target& target, const qxArray* text, const FieldPath& path);
  void fieldMaskText(const Target& target, const qxArray* text, const FieldPath& path);
  void jsonValue(const Target& target, const qxArray* array, const FieldPath& path);
  void jsonStructValue(const Target& target, const qxArray* structs, std::size_t element, const FieldPath& path);
  void jsonStruct(const Target& target, const qxArray* structs, std::size_t element, const FieldPath& path);

  MessageShapes shapes_;
  AnyMessages anys_;
};

}  // namespace parallel::protobufencoding
