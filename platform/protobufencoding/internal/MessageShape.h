// What the mapping needs to know of a message type, asked of its descriptor once.
// Ownership: shapes of types that live as long as the process are kept for good; see MessageShapes.
// Threads:   a shape is constant after construction, except for the remembered shapes of its message fields, which are
//            atomic, and for its partial field names, which look after themselves.
#pragma once

#include <google/protobuf/descriptor.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/internal/PartialFieldNames.h"

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
  explicit FieldShape(const google::protobuf::FieldDescriptor* field);

  const google::protobuf::FieldDescriptor* descriptor;
  std::string name;  // of the struct's field
  int number;
  ValueKind kind;
  Cardinality cardinality;
  bool hasPresence;   // unset is not the same as default
  bool requiresUtf8;  // of strings
  bool isClosedEnum;
  const google::protobuf::OneofDescriptor* oneof;  // null unless a member of a oneof that the schema declares

 private:
  friend class MessageShapes;
  mutable std::atomic<const MessageShape*> message_{nullptr};
};

// What a field of a struct means.
struct FieldBinding {
  enum class Role : std::uint8_t { MessageType, UnknownFields, TypeUrl, Field };
  Role role;
  const FieldShape* field;  // of the role Field
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
  // In the order of declaration, extensions not among them.
  const std::deque<FieldShape>& fields() const { return fields_; }
  std::span<const FieldShape* const> allFields() const { return allFields_; }
  // Of a struct with all fields that are not extensions, MessageType first.
  const qxFieldNamesPtr& structFieldNames() const { return structFieldNames_; }
  // Of structs with some of these fields.
  PartialFieldNames& partialFieldNames() const { return partialFieldNames_; }
  // What these names mean, one by one. Whether a struct shares them can be told without comparing any.
  const std::vector<FieldBinding>& bindings() const { return bindings_; }
  bool hasStructFieldNames(const qxArray* structs) const {
    return qxGetFieldNames(structs).data() == structFieldNameTable_;
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
  std::vector<const FieldShape*> allFields_;  // the same ones
  qxFieldNamesPtr structFieldNames_;
  mutable PartialFieldNames partialFieldNames_;
  const std::string* structFieldNameTable_;
  std::vector<FieldBinding> bindings_;
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
