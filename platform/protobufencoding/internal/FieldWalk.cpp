#include "platform/protobufencoding/internal/FieldWalk.h"

#include <google/protobuf/io/coded_stream.h>

#include <algorithm>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/protobufCompat.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;

constexpr std::uint32_t kNoGroup = 0;

}  // namespace

FieldWalk::FieldWalk(const Descriptor& type, std::string_view bytes, std::size_t mostFields)
    : bytes_(bytes), mostFields_(mostFields), reader_(bytes) {
  static_cast<void>(fields(&type, bytes.size(), kNoGroup));
}

// Each step returns false when the walk ends there, as the parser would.

// The fields of a message up to `end`, or to the end of its group. `type` is null where nothing is known of them.
bool FieldWalk::fields(const Descriptor* type, std::size_t end, std::uint32_t endTag) {
  while (reader_.at() < end) {
    std::uint32_t tag = 0;
    if (!reader_.readVarint32(tag))
      return false;
    if (wireTypeOf(tag) == EndGroup)
      return tag == endTag;
    if (++fieldCount_ > mostFields_ || !field(type, tag))
      return false;
  }
  return reader_.at() == end && endTag == kNoGroup;
}

bool FieldWalk::field(const Descriptor* type, std::uint32_t tag) {
  const int number = fieldNumberOf(tag);
  if (number == 0)
    return false;
  switch (wireTypeOf(tag)) {
    case Varint:
      return reader_.skipVarint();
    case Fixed64:
      return reader_.skip(sizeof(std::uint64_t));
    case LengthDelimited:
      return lengthDelimited(type == nullptr ? nullptr : findField(*type, number));
    case StartGroup:
      return group(type == nullptr ? nullptr : findField(*type, number), tag);
    case Fixed32:
      return reader_.skip(sizeof(std::uint32_t));
    default:
      return false;
  }
}

bool FieldWalk::lengthDelimited(const FieldDescriptor* field) {
  std::size_t nbytes = 0;
  if (!reader_.readLength(nbytes))
    return false;
  if (field != nullptr && field->type() == FieldDescriptor::TYPE_MESSAGE)
    return message(*field->message_type(), nbytes);
  if (field != nullptr && field->type() == FieldDescriptor::TYPE_STRING)
    return text(*field, nbytes);
  return reader_.skip(nbytes);
}

// One that is longer than the message around it is read to its own end, as far as there are bytes.
bool FieldWalk::message(const Descriptor& type, std::size_t nbytes) {
  const std::size_t there = std::min(nbytes, reader_.left());
  return inside(&type, reader_.at() + there, kNoGroup) && there == nbytes;
}

bool FieldWalk::group(const FieldDescriptor* field, std::uint32_t tag) {
  const bool known = field != nullptr && field->type() == FieldDescriptor::TYPE_GROUP;
  return inside(known ? field->message_type() : nullptr, bytes_.size(), endOfGroup(tag));
}

bool FieldWalk::inside(const Descriptor* type, std::size_t end, std::uint32_t endTag) {
  if (depth_ == google::protobuf::io::CodedInputStream::GetDefaultRecursionLimit())
    return false;
  ++depth_;
  const bool whole = fields(type, end, endTag);
  --depth_;
  return whole;
}

// Text that is cut is looked at by the parser too.
bool FieldWalk::text(const FieldDescriptor& field, std::size_t nbytes) {
  if (!fl::i18n::isWellFormed(bytes_.substr(reader_.at(), nbytes))) {
    badTexts_.push_back(reader_.at());
    if (compat::requiresUtf8(field))
      return false;
  }
  return reader_.skip(nbytes);
}

const FieldDescriptor* findField(const Descriptor& type, int number) {
  if (const FieldDescriptor* field = type.FindFieldByNumber(number))
    return field;
  return type.IsExtensionNumber(number) ? type.file()->pool()->FindExtensionByNumber(&type, number) : nullptr;
}

}  // namespace parallel::protobufencoding
