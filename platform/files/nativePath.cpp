#include "platform/files/nativePath.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace files {
namespace {

// The text does not show the name: the error may be logged where file names must not be.
[[noreturn]] void refuse(const char* reason) {
  throw Exception<host::files::PathNotConvertible>(reason);
}

}  // namespace

std::string nativePath(std::u16string_view path) {
  if (path.empty())
    refuse("it is empty");
  if (path.find(u'\0') != std::u16string_view::npos)
    refuse("it holds a NUL character");
  if (!fl::i18n::isWellFormed(path))
    refuse("it holds half of a surrogate pair");
  return fl::i18n::to_string(path);
}

std::u16string hostPath(std::string_view nativePath) {
  return fl::i18n::to_ustring(nativePath);
}

}  // namespace files
