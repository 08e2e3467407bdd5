// File names: UTF-16 in the host, bytes on the platform (UTF-8 on Linux).
#pragma once

#include <string>
#include <string_view>

namespace files {

// Throws the identified error `PathNotConvertible`, which does not show the name, when the name is empty, holds a NUL,
// or has an unpaired surrogate.
std::string nativePath(std::u16string_view path);
// Bytes that are not UTF-8 become U+FFFD.
std::u16string hostPath(std::string_view nativePath);

}  // namespace files
