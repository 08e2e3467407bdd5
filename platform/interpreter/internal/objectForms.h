// Looking up the registered forms of object classes.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "platform/interpreter/objectHooks.h"

namespace interpreter::internal {

// The names of the fields of a saved form.
inline const std::string kSavedClass = "SavedClass";
inline const std::string kSavedValue = "SavedValue";

// Null when the class has none. A form in use outlives its being replaced or unregistered.
std::shared_ptr<const ObjectForm> findObjectForm(const std::string& className);

}  // namespace interpreter::internal
