// The types that method signatures name.
#pragma once

#include <string>
#include <string_view>

#include "platform/array/qxArray.h"

namespace tova::factory::detail {

// Makes "TovaFactoryString" and "TovaFactoryString scalar" known to the calling thread's classes. Any number of times.
void initStringDataTypes();

// A data type that is known, or a well-formed full class name (the class may be registered later).
bool isKnownType(std::string_view type);

// Whether the array is of the type. A class name also accepts handles of its subclasses.
bool isOfType(const qxArray* array, std::string_view type);

// What a user would call the array: "2-by-3 text", "plant.Motor".
std::string describeValue(const qxArray* array);

}  // namespace tova::factory::detail
