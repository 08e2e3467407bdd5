// UTF-16 and UTF-8, one into the other. Ill-formed input becomes U+FFFD, so that no text is ever lost to an error.
#pragma once

#include <string>
#include <string_view>

namespace fl {

using ustring = std::u16string;

namespace i18n {

std::string to_string(std::u16string_view utf16);
ustring to_ustring(std::string_view utf8);

// True when the text has no unpaired surrogate, so that to_string loses nothing.
bool isWellFormed(std::u16string_view utf16) noexcept;
// True when the bytes are UTF-8 as RFC 3629 says: shortest forms only, no surrogates, nothing past U+10FFFF.
bool isWellFormed(std::string_view utf8) noexcept;

}  // namespace i18n
}  // namespace fl
