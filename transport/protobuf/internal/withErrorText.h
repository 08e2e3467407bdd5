// The words that every failure with a message is told in.
#pragma once

#include <exception>
#include <ostream>
#include <sstream>

#include "platform/errors/InternalException.h"

namespace parallel::spf::transport::protobuf::internal {

// What `work` gives. A std::exception on the way becomes an InternalException: "Error occurred ", `doing`, " protobuf
// message: ", the cause and a line feed. Others pass through.
template <class Work>
auto withErrorText(const char* doing, Work work) {
  try {
    return work();
  } catch (const std::exception& cause) {
    std::ostringstream text;
    text << "Error occurred " << doing << " protobuf message: " << cause.what() << std::endl;
    throw InternalException(text.str());
  }
}

}  // namespace parallel::spf::transport::protobuf::internal
