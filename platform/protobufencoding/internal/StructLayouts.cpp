#include "platform/protobufencoding/internal/PartialFieldNames.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/protobufencoding/internal/MessageShape.h"

namespace parallel::protobufencoding {

qxFieldNamesPtr PartialFieldNames::make(bool withType, std::span<const FieldShape* const> fields, bool withUnknown) {
  std::vector<std::string> names;
  names.reserve(fields.size() + 2);
  if (withType)
    names.emplace_back(kMessageTypeField);
  for (const FieldShape* field : fields)
    names.push_back(field->name);
  if (withUnknown)
    names.emplace_back(kUnknownFieldsField);
  return qxMakeFieldNames(names);
}

qxFieldNamesPtr PartialFieldNames::find(bool withType, std::span<const FieldShape* const> fields, bool withUnknown) {
  const std::scoped_lock lock(mutex_);
  const auto found = std::find_if(kept_.begin(), kept_.end(), [&](const Kept& kept) {
    return kept.withUnknown == withUnknown &&
           std::equal(kept.fields.begin(), kept.fields.end(), fields.begin(), fields.end());
  });
  if (found != kept_.end())
    return found->names;
  Kept made{{fields.begin(), fields.end()}, withUnknown, make(withType, fields, withUnknown)};
  qxFieldNamesPtr names = made.names;
  if (kept_.size() < kMostKept)
    kept_.push_back(std::move(made));
  else
    kept_[nextToGo_++ % kMostKept] = std::move(made);
  return names;
}

}  // namespace parallel::protobufencoding
