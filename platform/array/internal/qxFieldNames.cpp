#include "platform/array/internal/qxFieldNames.h"

#include <algorithm>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/ustring.h"

namespace {

// Up to here a walk over the names is as fast as hashing.
constexpr std::size_t kSearchedFields = 16;

}  // namespace

qxFieldNames::qxFieldNames(std::span<const std::string> names) {
  names_.reserve(names.size());
  for (const std::string& name : names) {
    qx_detail::checkFieldName(name);
    if (find(name) != kNoField)
      throw Exception<host::array::BadFieldName>(name, "it occurs twice");
    add(name);
  }
}

std::size_t qxFieldNames::find(std::string_view name) const {
  if (names_.size() > kSearchedFields) {
    const auto found = index_.find(name);
    return found == index_.end() ? kNoField : found->second;
  }
  const auto found = std::find(names_.begin(), names_.end(), name);
  return found == names_.end() ? kNoField : static_cast<std::size_t>(found - names_.begin());
}

void qxFieldNames::add(std::string name) {
  names_.push_back(std::move(name));
  try {
    indexNewNames();
  } catch (...) {
    index_.erase(names_.back());
    names_.pop_back();
    throw;
  }
}

void qxFieldNames::indexNewNames() {
  if (names_.size() <= kSearchedFields)
    return;
  for (std::size_t field = index_.size(); field < names_.size(); ++field)
    index_.emplace(names_[field], field);
}

namespace qx_detail {

void checkFieldName(std::string_view name) {
  if (name.empty())
    throw Exception<host::array::BadFieldName>(name, "it is empty");
  if (!fl::i18n::isWellFormed(name))
    throw Exception<host::array::BadFieldName>(name, "it is not UTF-8");
}

}  // namespace qx_detail
