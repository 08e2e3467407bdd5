// What differs between the protobuf versions that this library builds with, from 3.21 to the newest. Everything else
// here uses only what is the same in all of them. Names of descriptors are `const std::string&` in some versions and
// string views in others: bind them to std::string_view.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <string>
#include <string_view>
#include <type_traits>

namespace parallel::protobufencoding::compat {

// Whether the parser refuses strings of this field that are not UTF-8.
template <class Field>
bool requiresUtf8(const Field& field) {
  if constexpr (requires { field.requires_utf8_validation(); }) {
    return field.requires_utf8_validation();
  } else {
    using File = std::remove_cvref_t<decltype(*field.file())>;
    return field.type() == Field::TYPE_STRING && field.file()->syntax() == File::SYNTAX_PROTO3;
  }
}

// Whether the parser puts numbers that the enum does not name among the unknown fields.
template <class Field>
bool isClosedEnum(const Field& field) {
  if constexpr (requires { field.legacy_enum_field_treated_as_closed(); }) {
    return field.legacy_enum_field_treated_as_closed();
  } else {
    using File = std::remove_cvref_t<decltype(*field.file())>;
    return field.type() == Field::TYPE_ENUM && field.file()->syntax() != File::SYNTAX_PROTO3;
  }
}

// Keeps the first complaint of a DescriptorPool. The pool calls the one of the two functions that its version knows.
class FirstDescriptorError : public google::protobuf::DescriptorPool::ErrorCollector {
 public:
  // NOLINTNEXTLINE(modernize-use-override)
  void AddError(const std::string& file, const std::string& element, const google::protobuf::Message* /*descriptor*/,
                ErrorLocation /*location*/, const std::string& message) {
    keep(file, element, message);
  }
  // NOLINTNEXTLINE(modernize-use-override)
  void RecordError(std::string_view file, std::string_view element, const google::protobuf::Message* /*descriptor*/,
                   ErrorLocation /*location*/, std::string_view message) {
    keep(file, element, message);
  }

  const std::string& text() const { return text_; }

 private:
  void keep(std::string_view file, std::string_view element, std::string_view message) {
    if (text_.empty())
      text_.append(file).append(": ").append(element).append(": ").append(message);
  }

  std::string text_;
};

}  // namespace parallel::protobufencoding::compat
