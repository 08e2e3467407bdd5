// Equality of whole values.
#include <cstring>
#include <span>
#include <utility>
#include <vector>

#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/share.h"

using qx_detail::ListStorage;
using qx_detail::StructStorage;

namespace {

// Pairs that are still to be compared: a list of work instead of recursion, since values may be nested very deeply.
using Pending = std::vector<std::pair<const qxArray*, const qxArray*>>;

bool equalBytes(const qxArray* left, const qxArray* right) {
  const std::size_t nbytes = qxGetDataBytes(left);
  return nbytes == 0 || std::memcmp(qxGetData(left), qxGetData(right), nbytes) == 0;
}

// False when one element is set and its partner is not. Pairs of set elements go to `pending`.
bool pairElements(std::span<const qxArrayPtr> left, std::span<const qxArrayPtr> right, Pending& pending) {
  for (std::size_t i = 0; i < left.size(); ++i) {
    if ((left[i] == nullptr) != (right[i] == nullptr))
      return false;
    if (left[i] != nullptr)
      pending.emplace_back(left[i].get(), right[i].get());
  }
  return true;
}

bool pairFields(const StructStorage& left, const StructStorage& right, Pending& pending) {
  if (left.names().size() != right.names().size())
    return false;
  for (std::size_t field = 0; field < left.names().size(); ++field) {
    const std::size_t partner = right.names().find(left.names().all()[field]);
    if (partner == qxFieldNames::kNoField)
      return false;
    if (!pairElements(left.values(field), right.values(partner), pending))
      return false;
  }
  return true;
}

// Compares everything but nested values, which go to `pending`.
bool equalHere(const qxArray* left, const qxArray* right, Pending& pending) {
  if (left->cls != right->cls || left->complex != right->complex || !(left->shape == right->shape))
    return false;
  if (left->storage.get() != nullptr && left->storage.get() == right->storage.get())
    return true;
  switch (left->cls) {
    case qxClass::List:
      return pairElements(qx_detail::storageOf<ListStorage>(left).elements(),
                          qx_detail::storageOf<ListStorage>(right).elements(), pending);
    case qxClass::Struct:
      return pairFields(qx_detail::storageOf<StructStorage>(left), qx_detail::storageOf<StructStorage>(right), pending);
    case qxClass::Object:
      return qxGetNative(left) == qxGetNative(right);
    default:
      return equalBytes(left, right);
  }
}

}  // namespace

bool qxEqual(const qxArray* left, const qxArray* right) {
  Pending pending{{left, right}};
  while (!pending.empty()) {
    const auto [a, b] = pending.back();
    pending.pop_back();
    if (!equalHere(a, b, pending))
      return false;
  }
  return true;
}
