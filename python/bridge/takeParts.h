// Parts of lists and structs taken out of their places, so that the share in hand is the only one and data need not be
// copied. Null for one never set.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"

namespace zks::bridge {

inline qxArrayPtr takeElement(qxArray* list, std::size_t index) {
  const qxArray* const value = qxGetListElement(list, index);
  qxArrayPtr share = value == nullptr ? nullptr : qxCreateSharedCopy(value);
  if (share != nullptr)
    qxSetListElement(list, index, nullptr);
  return share;
}

inline qxArrayPtr takeField(qxArray* structs, std::size_t element, std::size_t field) {
  const qxArray* const value = qxGetFieldAt(structs, element, field);
  qxArrayPtr share = value == nullptr ? nullptr : qxCreateSharedCopy(value);
  if (share != nullptr)
    qxSetFieldAt(structs, element, field, nullptr);
  return share;
}

// A copy, which stays valid while fields are taken.
inline std::vector<std::string> fieldNamesOf(const qxArray* structs) {
  const auto names = qxGetFieldNames(structs);
  return {names.begin(), names.end()};
}

}  // namespace zks::bridge
