#include "platform/protobufencoding/countFields.h"

#include "platform/protobufencoding/internal/FieldWalk.h"

namespace parallel::protobufencoding {

std::size_t countFields(const google::protobuf::Descriptor& type, std::string_view bytes, std::size_t most) {
  return FieldWalk(type, bytes, most).fieldCount();
}

}  // namespace parallel::protobufencoding
