// Well-formed names of namespaces, classes and methods.
#pragma once

#include <string_view>

namespace tova::internal {

// A letter, then letters, digits and underscores (ASCII).
bool isIdentifier(std::string_view name) noexcept;

// At least two identifiers joined by dots: namespace and class.
bool isFullClassName(std::string_view name) noexcept;

// Throws `BadName` unless it is an identifier.
void requireIdentifier(std::string_view name);

}  // namespace tova::internal
