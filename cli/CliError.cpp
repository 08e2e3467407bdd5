#include "cli/CliError.h"

#include <string>
#include <system_error>

namespace zks {

std::string systemReason(int error) {
  return std::generic_category().message(error);
}

}  // namespace zks
