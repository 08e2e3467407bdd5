// platform/files/nativePath.h on std::filesystem, as a host vendor might write it.
#include "platform/files/nativePath.h"

#include <filesystem>

#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

namespace files {
namespace {

[[noreturn]] void refuse(const char* reason) {
  throw Exception<host::files::PathNotConvertible>(reason);
}

}  // namespace

std::string nativePath(std::u16string_view path) {
  if (path.empty())
    refuse("it is empty");
  if (path.find(u'\0') != std::u16string_view::npos)
    refuse("it holds a NUL character");
  try {
    return std::filesystem::path(path).string();
  } catch (const std::filesystem::filesystem_error&) {
    refuse("it holds half of a surrogate pair");
  }
}

std::u16string hostPath(std::string_view nativePath) {
  try {
    return std::filesystem::path(nativePath).u16string();
  } catch (const std::filesystem::filesystem_error&) {
    return fl::i18n::to_ustring(nativePath);
  }
}

}  // namespace files
