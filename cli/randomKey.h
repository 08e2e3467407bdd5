// Keys by which the service knows a request again.
#pragma once

#include <string>

namespace zks {

// 32 hexadecimal digits that nobody else has.
std::string randomKey();

}  // namespace zks
