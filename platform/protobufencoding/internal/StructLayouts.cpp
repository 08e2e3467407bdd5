#include "platform/protobufencoding/internal/StructLayouts.h"

#include <algorithm>
#include <utility>

#include "platform/protobufencoding/internal/MessageShape.h"

namespace parallel::protobufencoding {

namespace {

std::string_view nameOf(const FieldBinding& binding) {
  switch (binding.role) {
    case FieldBinding::Role::MessageType:
      return kMessageTypeField;
    case FieldBinding::Role::UnknownFields:
      return kUnknownFieldsField;
    case FieldBinding::Role::TypeUrl:
      return kTypeUrlField;
    case FieldBinding::Role::Field:
      break;
  }
  return binding.field->name;
}

}  // namespace

StructLayout::StructLayout(bool withType, std::span<const FieldShape* const> fields, bool withUnknown)
    : hasUnknown_(withUnknown) {
  bindings_.reserve(fields.size() + 2);
  if (withType)
    bindings_.push_back({FieldBinding::Role::MessageType, nullptr});
  for (const FieldShape* field : fields)
    bindings_.push_back({FieldBinding::Role::Field, field});
  if (withUnknown)
    bindings_.push_back({FieldBinding::Role::UnknownFields, nullptr});
  fields_ = std::span(bindings_).subspan(withType ? 1 : 0, fields.size());
  std::vector<std::string> names;
  names.reserve(bindings_.size());
  for (const FieldBinding& binding : bindings_)
    names.emplace_back(nameOf(binding));
  names_ = qxMakeFieldNames(names);
  nameTable_ = qxGetFieldNames(qxCreateStructWithNames({}, names_).get()).data();
}

bool StructLayout::has(std::span<const FieldShape* const> fields, bool unknown) const {
  return hasUnknown_ == unknown &&
         std::equal(fields_.begin(), fields_.end(), fields.begin(), fields.end(),
                    [](const FieldBinding& binding, const FieldShape* field) { return binding.field == field; });
}

StructLayoutPtr StructLayouts::find(bool withType, std::span<const FieldShape* const> fields, bool withUnknown) {
  const threads::MutexLock lock(mutex_);
  const auto found = std::find_if(kept_.begin(), kept_.end(),
                                  [&](const StructLayoutPtr& layout) { return layout->has(fields, withUnknown); });
  if (found != kept_.end())
    return *found;
  auto made = std::make_shared<const StructLayout>(withType, fields, withUnknown);
  if (kept_.size() < kMostKept)
    kept_.push_back(made);
  else
    kept_[nextToGo_++ % kMostKept] = made;
  return made;
}

StructLayoutPtr StructLayouts::findOf(const qxArray* structs) {
  const threads::MutexLock lock(mutex_);
  const auto found =
      std::find_if(kept_.begin(), kept_.end(), [&](const StructLayoutPtr& layout) { return layout->isOf(structs); });
  return found == kept_.end() ? nullptr : *found;
}

}  // namespace parallel::protobufencoding
