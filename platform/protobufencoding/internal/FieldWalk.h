// A walk over the encoded fields of a message, as protobuf's parser goes, before it does.
#pragma once

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/protobufencoding/internal/WireReader.h"

namespace parallel::protobufencoding {

// In damaged bytes the walk may go further than the parser would, never less far.
class FieldWalk {
 public:
  // Goes no further than to the first field past the most.
  FieldWalk(const google::protobuf::Descriptor& type, std::string_view bytes,
            std::size_t mostFields = std::numeric_limits<std::size_t>::max());

  // Where texts begin that the parser reports because they are not UTF-8, in order.
  std::vector<std::size_t> badTexts() && { return std::move(badTexts_); }
  // Those in messages and groups included; of a packed field, one.
  std::size_t fieldCount() const { return fieldCount_; }

 private:
  bool fields(const google::protobuf::Descriptor* type, std::size_t end, std::uint32_t endTag);
  bool field(const google::protobuf::Descriptor* type, std::uint32_t tag);
  bool lengthDelimited(const google::protobuf::FieldDescriptor* field);
  bool message(const google::protobuf::Descriptor& type, std::size_t nbytes);
  bool group(const google::protobuf::FieldDescriptor* field, std::uint32_t tag);
  bool inside(const google::protobuf::Descriptor* type, std::size_t end, std::uint32_t endTag);
  bool text(const google::protobuf::FieldDescriptor& field, std::size_t nbytes);

  const std::string_view bytes_;
  const std::size_t mostFields_;
  WireReader reader_;
  int depth_ = 0;
  std::size_t fieldCount_ = 0;
  std::vector<std::size_t> badTexts_;
};

// The field of that number, extensions included; null for none.
const google::protobuf::FieldDescriptor* findField(const google::protobuf::Descriptor& type, int number);

}  // namespace parallel::protobufencoding
