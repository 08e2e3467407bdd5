// What a task is to read as its standard input.
#pragma once

#include <string>

#include "toolbox/Item.h"

namespace zks {

// `path` names a file, a pipe or a device; "-" is the standard input of zks. All of it is read before the task starts.
// Errors: `CannotReadFile`, here or when the request is made.
parallel::toolbox::Item standardInputItem(const std::string& path);

// Whether somebody is to type it: nothing may write over what he types.
bool isTyped(const std::string& path) noexcept;

}  // namespace zks
