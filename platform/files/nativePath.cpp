#include "platform/files/nativePath.h"

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace files {
namespace {

[[noreturn]] void refuse(std::u16string_view path, const char* reason) {
  throw Exception<host::files::PathNotConvertible>(fl::i18n::to_string(path), reason);
}

}  // namespace

std::string nativePath(std::u16string_view path) {
  if (path.empty())
    refuse(path, "it is empty");
  if (path.find(u'\0') != std::u16string_view::npos)
    refuse(path, "it holds a NUL character");
  if (!fl::i18n::isWellFormed(path))
    refuse(path, "it holds half of a surrogate pair");
  return fl::i18n::to_string(path);
}

std::u16string hostPath(std::string_view nativePath) {
  return fl::i18n::to_ustring(nativePath);
}

}  // namespace files
