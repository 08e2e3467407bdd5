#include "platform/protobufencoding/internal/FieldPath.h"

namespace parallel::protobufencoding {

std::string FieldPath::text() const {
  if (parent_ == nullptr)
    return std::string(name_);
  std::string result = parent_->text();
  if (index_ != kNoIndex)
    return result.append("[").append(std::to_string(index_)).append("]");
  return result.append(".").append(name_);
}

}  // namespace parallel::protobufencoding
