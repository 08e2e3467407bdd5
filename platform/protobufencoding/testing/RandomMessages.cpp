#include "platform/protobufencoding/testing/RandomMessages.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/unknown_field_set.h>

#include <bit>
#include <memory>
#include <vector>

#include "platform/protobufencoding/internal/protobufCompat.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

namespace parallel::protobufencoding::testing {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

std::uint64_t RandomMessages::bits() {
  switch (below(4)) {
    case 0:
      return 0;
    case 1:
      return engine_();
    case 2:
      return engine_() >> below(64);
    default:
      return ~(engine_() >> below(64));
  }
}

std::string RandomMessages::someText() {
  static const std::vector<std::string> kPieces{"", "a", "MessageType", "\xc3\xa4", "\xf0\x9f\x98\x80", ",", ".", "k9"};
  std::string result;
  for (int i = below(4); i > 0; --i)
    result += kPieces[static_cast<std::size_t>(below(static_cast<int>(kPieces.size())))];
  return result;
}

std::string RandomMessages::someBytes() {
  std::string result(static_cast<std::size_t>(below(20)), '\0');
  for (char& byte : result)
    byte = static_cast<char>(engine_());
  return result;
}

void RandomMessages::fill(Message& message, int levels) {
  if (levels > 0 && chance(90) && fillWellKnown(message, levels))
    return;
  const google::protobuf::Descriptor& type = *message.GetDescriptor();
  for (int i = 0; i < type.field_count(); ++i) {
    if (type.field(i)->is_required() || chance(50))
      fillField(message, type.field(i), levels);
  }
  std::vector<const FieldDescriptor*> extensions;
  type.file()->pool()->FindAllExtensions(&type, &extensions);
  for (const FieldDescriptor* extension : extensions) {
    if (chance(40))
      fillField(message, extension, levels);
  }
  if (chance(10) && !type.options().map_entry() && !type.options().message_set_wire_format())
    addUnknownFields(message);
}

namespace {

std::string encodedKey(const Message& entry) {
  const std::unique_ptr<Message> key(entry.New());
  key->CopyFrom(entry);
  key->GetReflection()->ClearField(key.get(), key->GetDescriptor()->FindFieldByNumber(2));
  return key->SerializePartialAsString();
}

bool lastKeyIsThereAlready(const Message& message, const FieldDescriptor* field) {
  const Reflection& reflection = *message.GetReflection();
  const int last = reflection.FieldSize(message, field) - 1;
  const std::string key = encodedKey(reflection.GetRepeatedMessage(message, field, last));
  for (int i = 0; i < last; ++i) {
    if (encodedKey(reflection.GetRepeatedMessage(message, field, i)) == key)
      return true;
  }
  return false;
}

}  // namespace

void RandomMessages::fillField(Message& message, const FieldDescriptor* field, int levels) {
  if (field->cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE && levels == 0)
    return;
  if (!field->is_repeated())
    return set(message, field, levels);
  for (int i = below(4); i > 0; --i) {
    add(message, field, levels);
    if (field->is_map() && lastKeyIsThereAlready(message, field))
      message.GetReflection()->RemoveLast(&message, field);
  }
}

int RandomMessages::enumNumber(const FieldDescriptor* field) {
  if (!compat::isClosedEnum(*field) && chance(20))
    return static_cast<int>(bits());
  return field->enum_type()->value(below(field->enum_type()->value_count()))->number();
}

std::string RandomMessages::stringFor(const FieldDescriptor* field) {
  const bool anyBytes = field->type() == FieldDescriptor::TYPE_BYTES || (!compat::requiresUtf8(*field) && chance(20));
  return anyBytes ? someBytes() : someText();
}

void RandomMessages::set(Message& message, const FieldDescriptor* field, int levels) {
  const Reflection& reflection = *message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return reflection.SetInt32(&message, field, static_cast<std::int32_t>(bits()));
    case FieldDescriptor::CPPTYPE_INT64:
      return reflection.SetInt64(&message, field, static_cast<std::int64_t>(bits()));
    case FieldDescriptor::CPPTYPE_UINT32:
      return reflection.SetUInt32(&message, field, static_cast<std::uint32_t>(bits()));
    case FieldDescriptor::CPPTYPE_UINT64:
      return reflection.SetUInt64(&message, field, bits());
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return reflection.SetDouble(&message, field, std::bit_cast<double>(bits()));
    case FieldDescriptor::CPPTYPE_FLOAT:
      return reflection.SetFloat(&message, field, std::bit_cast<float>(static_cast<std::uint32_t>(bits())));
    case FieldDescriptor::CPPTYPE_BOOL:
      return reflection.SetBool(&message, field, chance(50));
    case FieldDescriptor::CPPTYPE_ENUM:
      return reflection.SetEnumValue(&message, field, enumNumber(field));
    case FieldDescriptor::CPPTYPE_STRING:
      return reflection.SetString(&message, field, stringFor(field));
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return fill(*reflection.MutableMessage(&message, field), levels - 1);
  }
}

void RandomMessages::add(Message& message, const FieldDescriptor* field, int levels) {
  const Reflection& reflection = *message.GetReflection();
  switch (field->cpp_type()) {
    case FieldDescriptor::CPPTYPE_INT32:
      return reflection.AddInt32(&message, field, static_cast<std::int32_t>(bits()));
    case FieldDescriptor::CPPTYPE_INT64:
      return reflection.AddInt64(&message, field, static_cast<std::int64_t>(bits()));
    case FieldDescriptor::CPPTYPE_UINT32:
      return reflection.AddUInt32(&message, field, static_cast<std::uint32_t>(bits()));
    case FieldDescriptor::CPPTYPE_UINT64:
      return reflection.AddUInt64(&message, field, bits());
    case FieldDescriptor::CPPTYPE_DOUBLE:
      return reflection.AddDouble(&message, field, std::bit_cast<double>(bits()));
    case FieldDescriptor::CPPTYPE_FLOAT:
      return reflection.AddFloat(&message, field, std::bit_cast<float>(static_cast<std::uint32_t>(bits())));
    case FieldDescriptor::CPPTYPE_BOOL:
      return reflection.AddBool(&message, field, chance(50));
    case FieldDescriptor::CPPTYPE_ENUM:
      return reflection.AddEnumValue(&message, field, enumNumber(field));
    case FieldDescriptor::CPPTYPE_STRING:
      return reflection.AddString(&message, field, stringFor(field));
    case FieldDescriptor::CPPTYPE_MESSAGE:
      return fill(*reflection.AddMessage(&message, field), levels - 1);
  }
}

// Numbers that no type of the tests has, above those of the scheduler's.
void RandomMessages::addUnknownFields(Message& message) {
  google::protobuf::UnknownFieldSet& unknown = *message.GetReflection()->MutableUnknownFields(&message);
  // Drawn one by one, so that a seed means the same with every compiler.
  const int first = 5000 + below(10);
  unknown.AddVarint(first, bits());
  unknown.AddFixed32(first, static_cast<std::uint32_t>(bits()));
  const int second = 5000 + below(10);
  unknown.AddFixed64(second, bits());
  unknown.AddLengthDelimited(second, someBytes());
  unknown.AddGroup(second)->AddVarint(1, bits());
}

bool RandomMessages::fillWellKnown(Message& message, int levels) {
  const std::string name(message.GetDescriptor()->full_name());
  const Reflection& reflection = *message.GetReflection();
  const auto field = [&](int number) { return message.GetDescriptor()->FindFieldByNumber(number); };
  if (name == "google.protobuf.Timestamp" || name == "google.protobuf.Duration") {
    reflection.SetInt64(&message, field(1), static_cast<std::int64_t>(engine_() % 2'000'000'000));
    if (chance(50))
      reflection.SetInt32(&message, field(2), below(1'000'000'000));
    return true;
  }
  if (name == "google.protobuf.Any" || name == "parallel.zksmessages.Any") {
    fillAny(message, levels);
    return true;
  }
  if (name == "google.protobuf.Value") {
    set(message, field(1 + below(6)), levels);
    return true;
  }
  return false;
}

void RandomMessages::fillAny(Message& any, int levels) {
  static const std::vector<std::string> kTypes{"parallel.protobufencoding.testing.Point",
                                               "parallel.protobufencoding.testing.Optionals",
                                               "parallel.zksmessages.EchoRequest",
                                               "google.protobuf.Timestamp",
                                               "google.protobuf.Empty",
                                               "parallel.zksmessages.Missing",
                                               "google.protobuf.Any"};
  const auto content = generateMessageByName(kTypes[static_cast<std::size_t>(below(static_cast<int>(kTypes.size())))]);
  fill(*content, levels - 1);
  const Reflection& reflection = *any.GetReflection();
  reflection.SetString(
      &any, any.GetDescriptor()->FindFieldByName("type_url"),
      chance(70) ? getTypeUrl(*content) : "other/" + std::string(content->GetDescriptor()->full_name()));
  reflection.SetString(&any, any.GetDescriptor()->FindFieldByName("value"), deterministic(*content));
}

}  // namespace parallel::protobufencoding::testing
