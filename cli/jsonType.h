// Takes the member "@type" out of a JSON object, leaving every other character as it is: numbers keep their digits.
//
// Errors: UsageError when the text is not an object or names no type.
#pragma once

#include <string>
#include <string_view>

namespace zks {

struct TypedJson {
  std::string typeName;  // without the URL before it
  std::string body;      // the object without the member
};

TypedJson splitJsonType(std::string_view json);

}  // namespace zks
