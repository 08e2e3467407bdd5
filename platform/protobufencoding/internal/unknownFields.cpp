#include "platform/protobufencoding/internal/unknownFields.h"

#include <google/protobuf/io/coded_stream.h>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/protobufencoding/internal/encodeErrors.h"

namespace parallel::protobufencoding {

namespace {

using google::protobuf::UnknownField;
using google::protobuf::UnknownFieldSet;
using google::protobuf::io::CodedOutputStream;

std::size_t encodedBytes(const UnknownFieldSet& fields);

std::size_t encodedBytes(const UnknownField& field) {
  const std::size_t tag = CodedOutputStream::VarintSize32(static_cast<std::uint32_t>(field.number()) << 3U);
  switch (field.type()) {
    case UnknownField::TYPE_VARINT:
      return tag + CodedOutputStream::VarintSize64(field.varint());
    case UnknownField::TYPE_FIXED32:
      return tag + sizeof(std::uint32_t);
    case UnknownField::TYPE_FIXED64:
      return tag + sizeof(std::uint64_t);
    case UnknownField::TYPE_LENGTH_DELIMITED:
      return tag + CodedOutputStream::VarintSize64(field.length_delimited().size()) + field.length_delimited().size();
    case UnknownField::TYPE_GROUP:
      break;
  }
  return tag + encodedBytes(field.group()) + tag;
}

// Protobuf's own count is not public.
std::size_t encodedBytes(const UnknownFieldSet& fields) {
  std::size_t total = 0;
  for (int i = 0; i < fields.field_count(); ++i)
    total += encodedBytes(fields.field(i));
  return total;
}

}  // namespace

// Protobuf would write past its memory for more bytes than it can count.
std::string encodedUnknownFields(const UnknownFieldSet& fields) {
  const std::size_t nbytes = encodedBytes(fields);
  if (nbytes > kMostCount)
    throw Exception<::parallel::protobuf::MessageTooLarge>(nbytes, kMostCount);
  std::string bytes;
  static_cast<void>(fields.SerializeToString(&bytes));
  return bytes;
}

}  // namespace parallel::protobufencoding
