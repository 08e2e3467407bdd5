#include "platform/protobufencoding/testing/canonicalAnys.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/unknown_field_set.h>

#include <string>
#include <string_view>
#include <vector>

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

namespace parallel::protobufencoding::testing {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

namespace {

constexpr std::string_view kStandardAny = "google.protobuf.Any";
constexpr std::string_view kSchedulersAny = "parallel.zksmessages.Any";

bool isAny(const Message& message, AnyEncoder* anyEncoder) {
  const std::string name(message.GetDescriptor()->full_name());
  return name == kStandardAny || (name == kSchedulersAny && anyEncoder != nullptr);
}

void setString(Message& message, const char* field, const std::string& text) {
  message.GetReflection()->SetString(&message, message.GetDescriptor()->FindFieldByName(field), text);
}

std::string stringOf(const Message& message, const char* field) {
  return message.GetReflection()->GetString(message, message.GetDescriptor()->FindFieldByName(field));
}

// Unless it stays packed.
void writeValueAnew(Message& any, AnyEncoder* anyEncoder) {
  if (!any.GetReflection()->GetUnknownFields(any).empty())
    return;
  const bool isSchedulers = std::string_view(any.GetDescriptor()->full_name()) == kSchedulersAny;
  if (isSchedulers && stringOf(any, "type_url").empty()) {
    setString(any, "type_url", "type.googleapis.com/parallel.zksmessages.Missing");
    setString(any, "value", "");
    return;
  }
  const auto content = generateMessage(stringOf(any, "type_url"));
  if (content == nullptr || isAny(*content, anyEncoder))
    return;
  const bool whole = content->ParsePartialFromString(stringOf(any, "value")) && content->IsInitialized();
  if (!whole && !isSchedulers)
    return;
  writeAnysAnew(*content, anyEncoder);
  setString(any, "value", deterministic(*content));
}

}  // namespace

void writeAnysAnew(Message& message, AnyEncoder* anyEncoder) {
  const Reflection& reflection = *message.GetReflection();
  if (isAny(message, anyEncoder))
    return writeValueAnew(message, anyEncoder);
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE)
      continue;
    if (!field->is_repeated()) {
      writeAnysAnew(*reflection.MutableMessage(&message, field), anyEncoder);
      continue;
    }
    for (int i = 0; i < reflection.FieldSize(message, field); ++i)
      writeAnysAnew(*reflection.MutableRepeatedMessage(&message, field, i), anyEncoder);
  }
}

}  // namespace parallel::protobufencoding::testing
