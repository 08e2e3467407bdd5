// Paths that lead to a place inside a directory, as peers tell them: "folder/file".
#pragma once

#include <string_view>

namespace files {

// The part before the first slash, or all of it.
constexpr std::string_view firstPart(std::string_view path) noexcept {
  return path.substr(0, path.find('/'));
}

// Parts between single slashes, none of them empty, "." or "..": no path that begins or ends with a slash, or that leads
// out. No NUL. Links are not looked at.
constexpr bool isRelativePath(std::string_view path) noexcept {
  if (path.find('\0') != std::string_view::npos)
    return false;
  for (;;) {
    const std::string_view part = firstPart(path);
    if (part.empty() || part == "." || part == "..")
      return false;
    if (part.size() == path.size())
      return true;
    path.remove_prefix(part.size() + 1);
  }
}

}  // namespace files
