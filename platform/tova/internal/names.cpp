#include "platform/tova/internal/names.h"

#include <algorithm>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace tova::internal {
namespace {

// Not the C library's, which ask the locale.
bool isLetter(char c) noexcept {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool isDigit(char c) noexcept {
  return c >= '0' && c <= '9';
}

}  // namespace

bool isIdentifier(std::string_view name) noexcept {
  return !name.empty() && isLetter(name.front()) &&
         std::all_of(name.begin(), name.end(), [](char c) { return isLetter(c) || isDigit(c) || c == '_'; });
}

bool isFullClassName(std::string_view name) noexcept {
  std::size_t dots = 0;
  for (std::size_t dot = name.find('.'); dot != std::string_view::npos; dot = name.find('.')) {
    if (!isIdentifier(name.substr(0, dot)))
      return false;
    name.remove_prefix(dot + 1);
    ++dots;
  }
  return dots > 0 && isIdentifier(name);
}

void requireIdentifier(std::string_view name) {
  if (!isIdentifier(name))
    throw Exception<host::classes::BadName>(name);
}

}  // namespace tova::internal
