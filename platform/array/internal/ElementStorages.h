// The bodies of list, struct and object arrays.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "platform/array/internal/Storage.h"
#include "platform/array/qxArray.h"

namespace qx_detail {

using Elements = std::vector<qxArrayPtr>;

// `count` unset elements. `OutOfMemory` when there is no room.
Elements unsetElements(std::size_t count);

class ListStorage : public Storage {
 public:
  explicit ListStorage(Elements elements) noexcept : elements_(std::move(elements)) {}

  std::unique_ptr<Storage> clone() const override;
  const Elements& elements() const noexcept { return elements_; }
  Elements& elements() noexcept { return elements_; }

 private:
  void surrenderElements(DoomedStorages& doomed) noexcept override;

  Elements elements_;
};

// Values stand by field: values()[field][element].
class StructStorage : public Storage {
 public:
  static constexpr std::size_t kNoField = static_cast<std::size_t>(-1);

  StructStorage() = default;

  std::unique_ptr<Storage> clone() const override;
  const std::vector<std::string>& names() const noexcept { return names_; }
  std::size_t find(std::string_view name) const;
  // The name must be good and new.
  void add(std::string name, Elements values);
  const Elements& values(std::size_t field) const noexcept { return values_[field]; }
  Elements& values(std::size_t field) noexcept { return values_[field]; }

 private:
  void surrenderElements(DoomedStorages& doomed) noexcept override;
  void indexNewNames();

  struct NameHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view name) const noexcept { return std::hash<std::string_view>()(name); }
  };

  std::vector<std::string> names_;
  std::vector<Elements> values_;
  // Where each name stands; kept only for structs of many fields, where searching would take long.
  std::unordered_map<std::string, std::size_t, NameHash, std::equal_to<>> index_;
};

class ObjectStorage : public Storage {
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
