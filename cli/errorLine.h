// One line for the user out of whatever was thrown.
#pragma once

#include <exception>
#include <string>
#include <string_view>

namespace zks {

// The chain of causes, outermost first, each after a colon.
std::string errorLine(const std::exception_ptr& error);

// The same of a text whose further lines are the causes.
std::string joinedLines(std::string_view text);

}  // namespace zks
