// A host object's handle as Python holds it; zks.host puts a class around it.
//
// Ownership: one share of the handle's array. The native object goes when its last share does.
#pragma once

#include <memory>
#include <string>
#include <utility>

#include "platform/array/qxArray.h"
#include "python/bridge/counters.h"

namespace zks::bridge {

class Handle {
 public:
  explicit Handle(qxArrayPtr array) : array_(std::move(array)) {}

  const qxArray* array() const noexcept { return array_.get(); }
  const std::string& className() const { return qxGetObjectClassName(array_.get()); }

 private:
  qxArrayPtr array_;
  Counted counted_{counters().handles};
};

}  // namespace zks::bridge
