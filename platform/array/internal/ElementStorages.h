// The bodies of list, struct and object arrays.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/array/internal/Storage.h"
#include "platform/array/internal/qxFieldNames.h"
#include "platform/array/qxArray.h"

namespace qx_detail {

using Elements = std::vector<qxArrayPtr>;

// `count` unset elements. `OutOfMemory` when there is no room.
Elements unsetElements(std::size_t count);

class ListStorage final : public Storage {
 public:
  explicit ListStorage(Elements elements) noexcept : elements_(std::move(elements)) {}

  std::unique_ptr<Storage> clone() const override;
  const Elements& elements() const noexcept { return elements_; }
  Elements& elements() noexcept { return elements_; }

 private:
  void surrenderElements(DoomedStorages& doomed) noexcept override;

  Elements elements_;
};

// Values stand by field: those of all elements for the first field, then for the second, ...
class StructStorage final : public Storage {
 public:
  // `count` elements, no field set. Shares the names.
  StructStorage(std::size_t count, std::shared_ptr<const qxFieldNames> names);
  StructStorage(std::size_t count, std::shared_ptr<const qxFieldNames> names, Elements values) noexcept
      : count_(count), names_(std::move(names)), values_(std::move(values)) {}

  std::unique_ptr<Storage> clone() const override;
  const qxFieldNames& names() const noexcept { return *names_; }
  // Adds a field, unset. The name must be good and new.
  void add(std::string name);
  std::span<const qxArrayPtr> values(std::size_t field) const noexcept {
    return {values_.data() + field * count_, count_};
  }
  std::span<qxArrayPtr> values(std::size_t field) noexcept { return {values_.data() + field * count_, count_}; }

 private:
  void surrenderElements(DoomedStorages& doomed) noexcept override;
  void makeNamesOwn();

  std::size_t count_;
  std::shared_ptr<const qxFieldNames> names_;
  // The same names, when nobody else has them; null as long as they may be another's too.
  qxFieldNames* ownNames_ = nullptr;
  Elements values_;
};

class ObjectStorage final : public Storage {
 public:
  ObjectStorage(std::string className, std::shared_ptr<void> native) noexcept
      : className_(std::move(className)), native_(std::move(native)) {}

  std::unique_ptr<Storage> clone() const override;
  const std::string& className() const noexcept { return className_; }
  const std::shared_ptr<void>& native() const noexcept { return native_; }

 private:
  std::string className_;
  std::shared_ptr<void> native_;
};

}  // namespace qx_detail
