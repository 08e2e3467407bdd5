// The check that every input of a method passes before the method sees it.
#pragma once

#include "platform/array/qxArray.h"

namespace tova::factory::impl {

// `InvalidHandle` when the array is a handle whose native object is gone, or an object array without any object. Arrays
// of other classes, and objects that do not belong to the class system, pass.
void validateSelfPointer(const qxArray* array);

}  // namespace tova::factory::impl
