#include "platform/protobufencoding/internal/AnyMessages.h"

#include <google/protobuf/any.pb.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include "platform/protobufencoding/internal/MessageTypes.h"
#include "platform/protobufencoding/internal/encodeErrors.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/protobufencoding/protobufencoding.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Message;

constexpr std::string_view kStandardAny = "google.protobuf.Any";

std::string stringField(const Message& message, const char* name) {
  return message.GetReflection()->GetString(message, message.GetDescriptor()->FindFieldByName(name));
}

// The same without a copy, which `scratch` has room for where it needs one.
const std::string& valueOf(const Message& any, std::string& scratch) {
  return any.GetReflection()->GetStringReference(any, any.GetDescriptor()->FindFieldByName("value"), &scratch);
}

void setStringField(Message& message, const char* name, std::string text) {
  message.GetReflection()->SetString(&message, message.GetDescriptor()->FindFieldByName(name), std::move(text));
}

// Maps in the order of their keys, so that equal messages make equal bytes.
std::string deterministicBytes(const Message& message) {
  std::string bytes;
  google::protobuf::io::StringOutputStream stream(&bytes);
  google::protobuf::io::CodedOutputStream coded(&stream);
  coded.SetSerializationDeterministic(true);
  static_cast<void>(message.SerializePartialToCodedStream(&coded));
  coded.Trim();
  return bytes;
}

// google.protobuf.Any, compiled or of a descriptor set.
class StandardAnyEncoder : public AnyEncoder {
 public:
  bool isAnyMessage(const google::protobuf::Descriptor* descriptor) override {
    return std::string_view(descriptor->full_name()) == kStandardAny;
  }
  std::unique_ptr<Message> encodeToAny(const Message& message) override {
    auto any = std::make_unique<google::protobuf::Any>();
    any->set_type_url(getTypeUrl(message));
    any->set_value(deterministicBytes(message));
    return any;
  }
  // Only a whole message: one that is cut short, or lacks a required field, would not come back as it was.
  std::unique_ptr<Message> decodeFromAny(const Message& any) override {
    auto message = generateMessage(stringField(any, "type_url"));
    std::string scratch;
    const bool whole = message != nullptr && parseQuietly(*message, valueOf(any, scratch)) && message->IsInitialized();
    return whole ? std::move(message) : nullptr;
  }
};

AnyEncoder& standardAny() {
  static StandardAnyEncoder encoder;
  return encoder;
}

// Between two classes of Any, such as a compiled and a dynamic one, which may number their fields as they like. Not
// through bytes: an Any that holds the largest message is larger itself.
void copyAcross(const Message& from, Message& to) {
  setStringField(to, "type_url", stringField(from, "type_url"));
  setStringField(to, "value", stringField(from, "value"));
}

}  // namespace

bool AnyMessages::isAny(const MessageShape& shape) {
  if (shape.special() != SpecialForm::AnyLayout)
    return false;
  const auto known = isAny_.find(&shape);
  if (known != isAny_.end())
    return known->second;
  const bool result = (callers_ != nullptr && callers_->isAnyMessage(shape.descriptor())) ||
                      standardAny().isAnyMessage(shape.descriptor());
  return isAny_[&shape] = result;
}

AnyEncoder& AnyMessages::encoderFor(const MessageShape& shape) {
  return callers_ != nullptr && callers_->isAnyMessage(shape.descriptor()) ? *callers_ : standardAny();
}

std::string AnyMessages::typeUrl(const Message& any) {
  return stringField(any, "type_url");
}

void AnyMessages::setTypeUrl(Message& any, std::string url) {
  setStringField(any, "type_url", std::move(url));
}

// The caller's encoder expects its own compiled class, while `any` may be a dynamic message.
std::unique_ptr<Message> AnyMessages::decode(const Message& any, const MessageShape& shape) {
  AnyEncoder& encoder = encoderFor(shape);
  auto compiled = MessageTypes::createCompiled(shape.fullName());
  if (compiled == nullptr || compiled->GetDescriptor() == any.GetDescriptor())
    return encoder.decodeFromAny(any);
  copyAcross(any, *compiled);
  return encoder.decodeFromAny(*compiled);
}

std::unique_ptr<Message> AnyMessages::unpack(const Message& any, const MessageShape& shape) {
  std::string scratch;
  return valueOf(any, scratch).size() > kMostCount ? nullptr : decode(any, shape);
}

void AnyMessages::pack(const Message& message, Message& any, const MessageShape& shape) {
  const auto packed = encoderFor(shape).encodeToAny(message);
  if (packed->GetReflection() == any.GetReflection())
    any.GetReflection()->Swap(&any, packed.get());
  else
    copyAcross(*packed, any);
}

}  // namespace parallel::protobufencoding
