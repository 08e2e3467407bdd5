#include "platform/array/internal/Storage.h"

namespace qx_detail {

void DoomedStorages::dropShareOf(Storage* storage) noexcept {
  if (storage == nullptr || !storage->dropShare())
    return;
  storage->nextDoomed_ = first_;
  first_ = storage;
}

void DoomedStorages::destroyAll() noexcept {
  while (first_ != nullptr) {
    Storage* storage = first_;
    first_ = storage->nextDoomed_;
    storage->surrenderElements(*this);
    delete storage;
  }
}

void StorageRef::drop() noexcept {
  DoomedStorages doomed;
  doomed.dropShareOf(storage_);
  doomed.destroyAll();
}

}  // namespace qx_detail
