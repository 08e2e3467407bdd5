// The verbose diagnostic text of the exception being handled, as Boost.Exception formats it.
#pragma once

#include <string>

namespace parallel::logging {

// Call inside a catch block.
std::string currentExceptionText();

}  // namespace parallel::logging
