// What the mapping needs to know of a message type, asked of its descriptor once.
// Ownership: shapes of types that live as long as the process are kept for good; see MessageShapes.
// Threads:   a shape is constant after construction, except for the remembered shapes of its message fields, which are
//            atomic, and for its layouts, which look after themselves.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/internal/StructLayouts.h"

namespace parallel::protobufencoding {

// Fields of the struct that are not fields of the message.
inline constexpr std::string_view kMessageTypeField = "MessageType";
inline constexpr std::string_view kUnknownFieldsField = "UnknownFields";
inline constexpr std::string_view kTypeUrlField = "TypeUrl";

// Fields of the structs that stand for entries of a map, and of the messages that reflection shows for them.
inline constexpr std::string_view kKeyField = "key";
inline constexpr std::string_view kValueField = "value";
inline constexpr int kKeyNumber = 1;
inline constexpr int kValueNumber = 2;

// Messages nest at most this deep below the top one; the parser's own limit.
inline constexpr int kMaxMessageNesting = 100;

enum class ValueKind : std::uint8_t { Int32, Int64, Uint32, Uint64, Double, Float, Bool, Enum, String, Bytes, Message };

enum class Cardinality : std::uint8_t { Single, Repeated, Map };

// Messages whose value is not a struct with their fields, where it can be avoided without a loss.
enum class SpecialForm : std::uint8_t {
  None,
  AnyLayout,  // has type_url and value; whether it is an Any is for the caller's AnyEncoder to say
  Timestamp,
  Duration,
  Wrapper,
  Struct,
  Value,
  ListValue,
  FieldMask,
};

class MessageShape;

struct FieldShape {
  explicit FieldShape(const google::protobuf::FieldDescriptor* field,
                      const google::protobuf::Reflection* compiledReflection = nullptr);

  const google::protobuf::FieldDescriptor* descriptor;
  std::string name;  // of the struct's field
  int number;
  ValueKind kind;
  Cardinality cardinality;
  bool hasPresence;   // unset is not the same as default
  bool requiresUtf8;  // of strings
  bool isClosedEnum;
  bool hasTextKeys;                                // of maps
  const google::protobuf::OneofDescriptor* oneof;  // null unless a member of a oneof that the schema declares
  const google::protobuf::Reflection* compiled;    // of the compiled class that has the field; null when none does

 private:
  friend class MessageShapes;
  mutable std::atomic<const MessageShape*> message_{nullptr};
};

class MessageShape {
 public:
  explicit MessageShape(const google::protobuf::Descriptor* descriptor);

  const google::protobuf::Descriptor* descriptor() const { return descriptor_; }
  const std::string& fullName() const { return fullName_; }
  const std::u16string& typeText() const { return typeText_; }     // the full name as the host has it
  const qxArray* typeArray() const { return typeArray_.get(); }    // the same as an array, to be shared
  const qxArray* emptyArray() const { return emptyArray_.get(); }  // of no messages, to be shared
  bool isEmptyArray(const qxArray* structs) const {                // told without comparing names; false says nothing
    return qxGetNumberOfElements(structs) == 0 &&
           qxGetFieldNames(structs).data() == qxGetFieldNames(emptyArray_.get()).data();
  }
  SpecialForm special() const { return special_; }
  bool isExtendable() const { return descriptor_->extension_range_count() > 0; }
  // Whether messages of the type can differ in which of its fields a struct has.
  bool presenceVaries() const { return presenceVaries_; }
  bool isMapEntry() const { return isMapEntry_; }
  // Entries of maps name no type: they are not messages to users.
  bool namesType() const { return !isMapEntry_; }
  // In the order of declaration, extensions not among them.
  const std::deque<FieldShape>& fields() const { return fields_; }
  std::span<const FieldShape* const> allFields() const { return allFields_; }
  // Of a struct with all fields that are not extensions.
  const StructLayoutPtr& fullLayout() const { return fullLayout_; }
  // Of structs with some fields, and unknown ones.
  StructLayouts& layouts() const { return layouts_; }
  // Of a message of this type in a field of another message, for less than the message itself takes to tell: what is in
  // a compiled message is compiled, too.
  const google::protobuf::Reflection& reflectionIn(const google::protobuf::Reflection& outer, const FieldShape& field,
                                                   const google::protobuf::Message& inner) const {
    return &outer == field.compiled && compiled_ != nullptr ? *compiled_ : *inner.GetReflection();
  }
  // By the name of the struct's field; null when there is none.
  const FieldShape* find(std::string_view name) const;
  // The same for many names that mostly come in the order of declaration.
  class Search;
  // By the number in the schema, which must be there.
  const FieldShape& number(int number) const;
  // "a, b, c", for messages.
  std::string fieldNames() const;

 private:
  const google::protobuf::Descriptor* descriptor_;
  std::string fullName_;
  std::u16string typeText_;
  qxArrayPtr typeArray_;
  qxArrayPtr emptyArray_;
  SpecialForm special_;
  bool isMapEntry_;
  bool presenceVaries_;
  std::deque<FieldShape> fields_;
  std::vector<const FieldShape*> allFields_;      // the same ones
  const google::protobuf::Reflection* compiled_;  // of the compiled class; null when there is none
  StructLayoutPtr fullLayout_;
  mutable StructLayouts layouts_;
  std::unordered_map<std::string_view, const FieldShape*> byName_;
};

class MessageShape::Search {
 public:
  explicit Search(const MessageShape& shape) : shape_(shape) {}

  const FieldShape* find(std::string_view name);

 private:
  const MessageShape& shape_;
  std::size_t next_ = 0;
};

}  // namespace parallel::protobufencoding
