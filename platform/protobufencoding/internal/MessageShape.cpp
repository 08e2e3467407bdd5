#include "platform/protobufencoding/internal/MessageShape.h"

#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <array>
#include <initializer_list>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/hostValues.h"
#include "platform/protobufencoding/internal/protobufCompat.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

// A field called like one of the struct's own gets an underscore more, and so does one that would then clash.
std::string structFieldName(std::string_view name) {
  std::string_view stem = name;
  while (stem.ends_with('_'))
    stem.remove_suffix(1);
  const bool reserved = stem == kMessageTypeField || stem == kUnknownFieldsField || stem == kTypeUrlField;
  return std::string(name) + (reserved ? "_" : "");
}

std::string structFieldName(const FieldDescriptor& field) {
  if (field.is_extension())
    return "[" + std::string(field.full_name()) + "]";
  return structFieldName(std::string_view(field.name()));
}

ValueKind kindOf(const FieldDescriptor& field) {
  switch (field.cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return ValueKind::Int32;
    case FieldDescriptor::CPPTYPE_INT64:
      return ValueKind::Int64;
    case FieldDescriptor::CPPTYPE_UINT32:
      return ValueKind::Uint32;
    case FieldDescriptor::CPPTYPE_UINT64:
      return ValueKind::Uint64;
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return ValueKind::Double;
    case FieldDescriptor::CPPTYPE_FLOAT:
      return ValueKind::Float;
    case FieldDescriptor::CPPTYPE_BOOL:
      return ValueKind::Bool;
    case FieldDescriptor::CPPTYPE_ENUM:
      return ValueKind::Enum;
    case FieldDescriptor::CPPTYPE_STRING:
      return field.type() == FieldDescriptor::TYPE_BYTES ? ValueKind::Bytes : ValueKind::String;
    case FieldDescriptor::CPPTYPE_MESSAGE:
      break;
  }
  return ValueKind::Message;
}

enum class Label : std::uint8_t { Plain, Repeated, InOneof };

struct Expected {
  int number;
  std::string_view name;
  FieldDescriptor::Type type;
  Label label = Label::Plain;
};

bool hasLabel(const FieldDescriptor& field, Label label) {
  switch (label) {
    case Label::Plain:
      return !field.is_repeated() && !field.has_presence();
    case Label::Repeated:
      return field.is_repeated();
    case Label::InOneof:
      break;
  }
  return field.real_containing_oneof() != nullptr && field.real_containing_oneof()->index() == 0;
}

// Types of these names may come from a descriptor set that means something else by them: what the special form cannot
// show, such as presence or extensions, would be lost.
bool hasFields(const Descriptor& descriptor, std::initializer_list<Expected> expected) {
  if (descriptor.field_count() != static_cast<int>(expected.size()) || descriptor.extension_range_count() > 0)
    return false;
  return std::all_of(expected.begin(), expected.end(), [&](const Expected& e) {
    const FieldDescriptor* field = descriptor.FindFieldByNumber(e.number);
    return field != nullptr && std::string_view(field->name()) == e.name && field->type() == e.type &&
           hasLabel(*field, e.label);
  });
}

bool isFieldOf(const Descriptor& descriptor, int number, std::string_view messageType) {
  return std::string_view(descriptor.FindFieldByNumber(number)->message_type()->full_name()) == messageType;
}

bool isWrapper(const Descriptor& descriptor, std::string_view name) {
  constexpr std::array<std::pair<std::string_view, FieldDescriptor::Type>, 9> kWrappers{{
      {"google.protobuf.DoubleValue", FieldDescriptor::TYPE_DOUBLE},
      {"google.protobuf.FloatValue", FieldDescriptor::TYPE_FLOAT},
      {"google.protobuf.Int64Value", FieldDescriptor::TYPE_INT64},
      {"google.protobuf.UInt64Value", FieldDescriptor::TYPE_UINT64},
      {"google.protobuf.Int32Value", FieldDescriptor::TYPE_INT32},
      {"google.protobuf.UInt32Value", FieldDescriptor::TYPE_UINT32},
      {"google.protobuf.BoolValue", FieldDescriptor::TYPE_BOOL},
      {"google.protobuf.StringValue", FieldDescriptor::TYPE_STRING},
      {"google.protobuf.BytesValue", FieldDescriptor::TYPE_BYTES},
  }};
  return std::any_of(kWrappers.begin(), kWrappers.end(), [&](const auto& wrapper) {
    return wrapper.first == name && hasFields(descriptor, {{1, "value", wrapper.second}});
  });
}

bool isStruct(const Descriptor& descriptor) {
  if (!hasFields(descriptor, {{1, "fields", FieldDescriptor::TYPE_MESSAGE, Label::Repeated}}))
    return false;
  const FieldDescriptor* fields = descriptor.FindFieldByNumber(1);
  return fields->is_map() && isFieldOf(*fields->message_type(), 2, "google.protobuf.Value") &&
         fields->message_type()->FindFieldByNumber(1)->type() == FieldDescriptor::TYPE_STRING;
}

bool isValue(const Descriptor& descriptor) {
  return hasFields(descriptor, {{1, "null_value", FieldDescriptor::TYPE_ENUM, Label::InOneof},
                                {2, "number_value", FieldDescriptor::TYPE_DOUBLE, Label::InOneof},
                                {3, "string_value", FieldDescriptor::TYPE_STRING, Label::InOneof},
                                {4, "bool_value", FieldDescriptor::TYPE_BOOL, Label::InOneof},
                                {5, "struct_value", FieldDescriptor::TYPE_MESSAGE, Label::InOneof},
                                {6, "list_value", FieldDescriptor::TYPE_MESSAGE, Label::InOneof}}) &&
         isFieldOf(descriptor, 5, "google.protobuf.Struct") && isFieldOf(descriptor, 6, "google.protobuf.ListValue");
}

// The numbers are for each Any to choose.
bool hasAnyLayout(const Descriptor& descriptor) {
  const FieldDescriptor* url = descriptor.FindFieldByName("type_url");
  const FieldDescriptor* value = descriptor.FindFieldByName("value");
  return url != nullptr && value != nullptr &&
         hasFields(descriptor, {{url->number(), "type_url", FieldDescriptor::TYPE_STRING},
                                {value->number(), "value", FieldDescriptor::TYPE_BYTES}});
}

SpecialForm specialFormOf(const Descriptor& descriptor) {
  const std::string_view name = descriptor.full_name();
  const auto isTime = [&] {
    return hasFields(descriptor,
                     {{1, "seconds", FieldDescriptor::TYPE_INT64}, {2, "nanos", FieldDescriptor::TYPE_INT32}});
  };
  if (name == "google.protobuf.Timestamp" && isTime())
    return SpecialForm::Timestamp;
  if (name == "google.protobuf.Duration" && isTime())
    return SpecialForm::Duration;
  if (isWrapper(descriptor, name))
    return SpecialForm::Wrapper;
  if (name == "google.protobuf.Struct" && isStruct(descriptor))
    return SpecialForm::Struct;
  if (name == "google.protobuf.Value" && isValue(descriptor))
    return SpecialForm::Value;
  if (name == "google.protobuf.ListValue" &&
      hasFields(descriptor, {{1, "values", FieldDescriptor::TYPE_MESSAGE, Label::Repeated}}) &&
      isFieldOf(descriptor, 1, "google.protobuf.Value"))
    return SpecialForm::ListValue;
  if (name == "google.protobuf.FieldMask" &&
      hasFields(descriptor, {{1, "paths", FieldDescriptor::TYPE_STRING, Label::Repeated}}))
    return SpecialForm::FieldMask;
  return hasAnyLayout(descriptor) ? SpecialForm::AnyLayout : SpecialForm::None;
}

Cardinality cardinalityOf(const FieldDescriptor& field) {
  if (field.is_map())
    return Cardinality::Map;
  return field.is_repeated() ? Cardinality::Repeated : Cardinality::Single;
}

const google::protobuf::Reflection* compiledReflection(const Descriptor& descriptor) {
  const bool isCompiled = descriptor.file()->pool() == google::protobuf::DescriptorPool::generated_pool();
  if (!isCompiled || descriptor.options().map_entry())
    return nullptr;
  return google::protobuf::MessageFactory::generated_factory()->GetPrototype(&descriptor)->GetReflection();
}

qxArrayPtr createEmptyArray() {
  return qxCreateStructArray(column(0), std::vector{std::string(kMessageTypeField)});
}

}  // namespace

FieldShape::FieldShape(const FieldDescriptor* field, const google::protobuf::Reflection* compiledReflection)
    : descriptor(field),
      name(structFieldName(*field)),
      number(field->number()),
      kind(kindOf(*field)),
      cardinality(cardinalityOf(*field)),
      hasPresence(field->has_presence()),
      requiresUtf8(compat::requiresUtf8(*field)),
      isClosedEnum(compat::isClosedEnum(*field)),
      hasTextKeys(field->is_map() &&
                  field->message_type()->FindFieldByNumber(kKeyNumber)->type() == FieldDescriptor::TYPE_STRING),
      oneof(field->real_containing_oneof()),
      compiled(compiledReflection) {}

MessageShape::MessageShape(const Descriptor* descriptor)
    : descriptor_(descriptor),
      fullName_(descriptor->full_name()),
      typeText_(fl::i18n::to_ustring(fullName_)),
      typeArray_(qxCreateString(typeText_)),
      emptyArray_(createEmptyArray()),
      special_(specialFormOf(*descriptor)),
      isMapEntry_(descriptor->options().map_entry()),
      presenceVaries_(isExtendable()),
      compiled_(compiledReflection(*descriptor)) {
  for (int i = 0; i < descriptor->field_count(); ++i) {
    const FieldShape& field = fields_.emplace_back(descriptor->field(i), compiled_);
    allFields_.push_back(&field);
    byName_.emplace(field.name, &field);
    presenceVaries_ = presenceVaries_ || field.hasPresence;
  }
  fullLayout_ = std::make_shared<const StructLayout>(namesType(), allFields_, false);
}

const FieldShape* MessageShape::find(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : found->second;
}

const FieldShape* MessageShape::Search::find(std::string_view name) {
  constexpr std::size_t kMostSkipped = 16;  // fields that are not set; hashing costs more than looking at these
  const std::size_t end = std::min(shape_.allFields_.size(), next_ + kMostSkipped);
  for (std::size_t place = next_; place < end; ++place) {
    if (shape_.allFields_[place]->name == name) {
      next_ = place + 1;
      return shape_.allFields_[place];
    }
  }
  return shape_.find(name);
}

const FieldShape& MessageShape::number(int number) const {
  // Mostly the first field has the number 1, and so on.
  const auto place = static_cast<std::size_t>(number) - 1;
  if (place < allFields_.size() && allFields_[place]->number == number)
    return *allFields_[place];
  return *std::find_if(fields_.begin(), fields_.end(), [&](const FieldShape& field) { return field.number == number; });
}

std::string MessageShape::fieldNames() const {
  std::string names;
  for (const FieldShape& field : fields_)
    names.append(names.empty() ? "" : ", ").append(field.name);
  return names;
}

}  // namespace parallel::protobufencoding
