// Jobs as users name them: by number, by name, or "last".
#pragma once

#include <cstdint>
#include <string>

#include "cli/JobSession.h"

namespace zks {

// The number of the job; the newest one of that name, or of all. CliError when there is none. A number is not looked up.
std::uint64_t jobNumber(JobSession& session, const std::string& name);

}  // namespace zks
