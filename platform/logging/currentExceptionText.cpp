#include "platform/logging/currentExceptionText.h"

#include <boost/exception/diagnostic_information.hpp>

namespace parallel::logging {

std::string currentExceptionText() {
  return boost::current_exception_diagnostic_information(true);
}

}  // namespace parallel::logging
