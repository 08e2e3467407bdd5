// Error chains as the ErrorChain message of transport.proto, whole or in parts.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/spf/core/errorChain.h"
#include "platform/spf/grpc/internal/wire/SliceCursor.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {

// Bytes of text in one part of an error, at most.
inline constexpr std::size_t kErrorPartBytes = std::size_t{256} << 10;

// Component and name are made well-formed UTF-8 where they are not; the text's bytes travel as they are.
v1::ErrorChain toMessage(const core::ErrorChain& chain);
// As above, cut into parts; at least one.
std::vector<v1::ErrorChain> toParts(const core::ErrorChain& chain);
// The text with what is no UTF-8 in it replaced.
std::string wellFormed(const std::string& text);

// An error, or a part of one, as it arrived: levels that go on in the next have become one. Takes little more memory
// than its texts, however many levels a peer makes of its bytes.
struct ReceivedError {
  core::ErrorChain levels;  // at most kMaxErrorLevels and one
  std::size_t leftOut = 0;  // levels that came after those
  bool continues = false;   // the text of the last level goes on in the next part
  std::size_t nbytes = 0;   // on the wire

  void add(core::ErrorLevel level, bool goesOn);
};

// Reads an ErrorChain message to its end, behind what `into` holds already, as the generated parser would. A kind that
// this code does not know becomes unknown. FrameworkError when the bytes are no such message.
void decodeError(SliceCursor message, ReceivedError& into);

// Puts the parts of one error together.
class ErrorParts {
 public:
  // FrameworkError when more comes than an error can have.
  void add(ReceivedError part);
  // Of levels past kMaxErrorLevels there is a mark.
  core::ErrorChain finish(ReceivedError last);

 private:
  ReceivedError gathered_;
};

}  // namespace agent::spf::grpc_transport::internal
