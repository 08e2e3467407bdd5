// A payload of any type: what travels with a call, by position.
#pragma once

#include <cstddef>
#include <memory>
#include <typeindex>
#include <utility>
#include <vector>

#include "platform/spf/core/errors.h"

namespace agent::spf::core {

class GenericPayload {
 public:
  GenericPayload() = default;
  GenericPayload(GenericPayload&&) noexcept = default;
  GenericPayload& operator=(GenericPayload&&) noexcept = default;
  GenericPayload(const GenericPayload&) = default;
  GenericPayload& operator=(const GenericPayload&) = default;
  ~GenericPayload() = default;

  template <class T>
  explicit GenericPayload(std::shared_ptr<T> value) {
    add(std::move(value));
  }

  template <class T>
  void add(std::shared_ptr<T> value) {
    values_.push_back({std::type_index(typeid(T)), std::move(value)});
  }

  std::size_t size() const noexcept { return values_.size(); }

  template <class T>
  bool holds(std::size_t index) const noexcept {
    return index < values_.size() && values_[index].type == std::type_index(typeid(T));
  }

  // The value at `index`, shared. FrameworkError: "Invalid GenericPayload index" past the end, "GenericPayload empty at
  // index" for a null value, "Polymorphic types are not supported with futures" when the value was put in as another
  // type than T.
  template <class T>
  std::shared_ptr<T> getValueAsPointer(std::size_t index) const {
    if (index >= values_.size())
      throw FrameworkError("Invalid GenericPayload index");
    const Value& value = values_[index];
    if (value.pointer == nullptr)
      throw FrameworkError("GenericPayload empty at index");
    if (value.type != std::type_index(typeid(T)))
      throw FrameworkError("Polymorphic types are not supported with futures");
    return std::static_pointer_cast<T>(value.pointer);
  }

 private:
  struct Value {
    std::type_index type;
    std::shared_ptr<void> pointer;
  };
  std::vector<Value> values_;
};

}  // namespace agent::spf::core
