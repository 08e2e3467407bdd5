// One line for the user out of whatever was thrown.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace zks {

// The chain of causes, outermost first, each after a colon. `cause` stands in where the text says only that the log has
// the reason.
std::string errorLine(const std::exception_ptr& error, std::string_view cause);

// The same of a text whose further lines are the causes.
std::string joinedLines(std::string_view text);

}  // namespace zks
