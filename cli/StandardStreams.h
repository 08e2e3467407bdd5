// Standard output and standard error, with one status line on the terminal that is never in the way of either.
//
// The status line is shown only where standard error is a terminal; whatever is written first wipes it.
// Threads: any, at once.
#pragma once

#include <cstddef>
#include <span>
#include <string_view>

namespace zks {

// Bytes as they are. CliError when they cannot be written; the host's interrupt exception when an interrupt comes
// while the reader keeps us waiting.
void writeOutput(std::string_view bytes);
void writeErrorOutput(std::string_view bytes);

// The same to standard error for messages: nothing can be done about a failure there.
void writeError(std::string_view text) noexcept;

// "zks: TEXT", a line of zks's own on standard error.
void say(std::string_view text) noexcept;

bool isStatusLineVisible() noexcept;  // whether there is a terminal to show one on
std::size_t statusLineColumns();      // how much of a text it shows
void showStatusLine(std::string_view text);
void clearStatusLine() noexcept;

// "zks: interrupted", the first time; waits for nobody. For the last moment of the program.
void reportInterrupted() noexcept;

}  // namespace zks
