// Exception<Tag, Base>: the identified exception of one catalogue entry.
//
// Tag comes from the message catalogue (platform/errors/catalogue.toml), from which "platform/errors/catalogue.h" is
// generated: component "parallel:cluster" and name "ZKSUnreachable" make the tag parallel::cluster::ZKSUnreachable.
// The arguments fill the holes {0}, {1}, ... of the entry's text; their number is checked at compile time.
//
//     throw Exception<parallel::cluster::ZKSUnreachable>();
//
// Base is a standard exception, so that foreign code can catch it; what() is the message in UTF-8.
#pragma once

#include <array>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "platform/errors/IException.h"

namespace errors_detail {

// Replaces {0}, {1}, ... in the template by the arguments.
std::string fillTemplate(std::string_view text, std::span<const std::string> arguments);

inline std::string toText(std::string value) {
  return value;
}
inline std::string toText(std::string_view value) {
  return std::string(value);
}
inline std::string toText(const char* value) {
  return value;
}
inline std::string toText(char value) {
  return std::string(1, value);
}
template <class Number>
requires std::is_arithmetic_v<Number> std::string toText(Number value) {
  return std::to_string(value);
}

}  // namespace errors_detail

template <class Tag, class Base = std::exception>
class Exception : public Base, public IException {
 public:
  template <class... Arguments>
  explicit Exception(const Arguments&... arguments) : component_(Tag::component), name_(Tag::name) {
    static_assert(sizeof...(Arguments) == Tag::argumentCount, "the catalogue entry takes another number of arguments");
    const std::array<std::string, sizeof...(Arguments)> texts{errors_detail::toText(arguments)...};
    text_ = errors_detail::fillTemplate(Tag::text, texts);
    ustring_ = fl::i18n::to_ustring(text_);
  }

  const char* what() const noexcept override { return text_.c_str(); }
  const std::string& component() const noexcept override { return component_; }
  const std::string& name() const noexcept override { return name_; }
  const fl::ustring& ToUstring() const noexcept override { return ustring_; }

 private:
  std::string component_;
  std::string name_;
  std::string text_;
  fl::ustring ustring_;
};
