#include "platform/protobufencoding/testing/canonicalAnys.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/unknown_field_set.h>

#include <string>
#include <vector>

#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

namespace parallel::protobufencoding::testing {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;

namespace {

bool isAny(const Message& message) {
  const std::string name(message.GetDescriptor()->full_name());
  return name == "google.protobuf.Any" || name == "parallel.zksmessages.Any";
}

// Unless it stays packed.
void writeValueAnew(Message& any) {
  const Reflection& reflection = *any.GetReflection();
  if (!reflection.GetUnknownFields(any).empty())
    return;
  const FieldDescriptor* value = any.GetDescriptor()->FindFieldByName("value");
  const auto content = generateMessage(reflection.GetString(any, any.GetDescriptor()->FindFieldByName("type_url")));
  if (content == nullptr || isAny(*content) || !content->ParsePartialFromString(reflection.GetString(any, value)) ||
      !content->IsInitialized())
    return;
  writeAnysAnew(*content);
  reflection.SetString(&any, value, deterministic(*content));
}

}  // namespace

void writeAnysAnew(Message& message) {
  const Reflection& reflection = *message.GetReflection();
  if (isAny(message))
    return writeValueAnew(message);
  std::vector<const FieldDescriptor*> fields;
  reflection.ListFields(message, &fields);
  for (const FieldDescriptor* field : fields) {
    if (field->cpp_type() != FieldDescriptor::CPPTYPE_MESSAGE)
      continue;
    if (!field->is_repeated()) {
      writeAnysAnew(*reflection.MutableMessage(&message, field));
      continue;
    }
    for (int i = 0; i < reflection.FieldSize(message, field); ++i)
      writeAnysAnew(*reflection.MutableRepeatedMessage(&message, field, i));
  }
}

}  // namespace parallel::protobufencoding::testing
