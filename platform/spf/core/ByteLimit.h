// A configured bound on the bytes of one request or reply.
#pragma once

#include <string>

namespace agent::spf::core {

struct ByteLimit {
  long bytes = 0;
  // What its user can change, for the error: "zksd --max-request".
  std::string option;
};

}  // namespace agent::spf::core
