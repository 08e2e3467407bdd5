// Texts that came from elsewhere, such as a peer's names, made fit for one line of a log, a terminal or an error.
//
// Such a text may hold a newline, with which it forges a line, an escape sequence, with which it commands a terminal, or
// 60 MB. What is not to be shown as it is becomes "\x1b", byte by byte: control characters, those of Unicode that turn
// the direction or end a line, and bytes that are not UTF-8. What is too long is cut, with a note of its length.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace errors {

// Of a text, the most bytes that one line shows, and of a name.
inline constexpr std::size_t kShownTextBytes = 8192;
inline constexpr std::size_t kShownNameBytes = 256;

// "two\x0alines", "xxxx[... 60000000 bytes in all]"; `most` counts the bytes of the text that are shown.
std::string visibleText(std::string_view text, std::size_t most = kShownTextBytes);

// In quotes: "\"name\"".
std::string inQuotes(std::string_view name, std::size_t most = kShownNameBytes);

}  // namespace errors
