// Fuzz target: any error frame becomes real nested exceptions and travels on as the same chain, in bounded memory.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "platform/errors/ustring.h"
#include "platform/spf/grpc/internal/errorMessage.h"
#include "tests/fuzzing/quietProtobuf.h"

namespace {

using namespace agent::spf;
using core::ErrorChain;
using core::ErrorLevel;
using grpc_transport::internal::fromMessage;
using grpc_transport::internal::toMessage;
using grpc_transport::internal::wellFormed;

void require(bool condition) {
  if (!condition)
    std::abort();
}

std::string shown(std::string text) {
  for (std::size_t at = text.find('\0'); at != std::string::npos; at = text.find('\0', at))
    text.replace(at, 1, core::kShownNul);
  return text;
}

// What a chain becomes by being thrown here: levels that are not identified have a text only, and identified ones are
// well-formed.
ErrorChain asThrown(const ErrorChain& chain) {
  ErrorChain thrown;
  for (const ErrorLevel& level : chain) {
    if (level.kind == ErrorLevel::Kind::identified)
      thrown.push_back({level.kind, shown(level.component), shown(level.name), wellFormed(shown(level.text))});
    else
      thrown.push_back({level.kind, "", "", shown(level.text)});
  }
  return thrown;
}

ErrorChain thrownAndCaught(const ErrorChain& chain) {
  return core::flattenErrorChain(core::rebuildErrorChain(chain));
}

ErrorChain sentInParts(const ErrorChain& chain) {
  const auto parts = grpc_transport::internal::toParts(chain);
  grpc_transport::internal::ErrorParts received;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i)
    received.add(parts[i]);
  return received.finish(parts.back());
}

void requireMarked(const ErrorChain& found, const ErrorChain& expected) {
  require(found.size() == core::kMaxErrorLevels + 1 && expected.size() > found.size());
  require(std::equal(expected.begin(), expected.begin() + core::kMaxErrorLevels, found.begin()));
  require(found.back().text ==
          "[" + std::to_string(expected.size() - core::kMaxErrorLevels) + " more levels were left out]");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  quietProtobuf();
  v1::ErrorChain message;
  if (!message.ParseFromArray(data, static_cast<int>(nbytes)))
    return 0;
  const ErrorChain received = fromMessage(message);
  const ErrorChain expected = asThrown(received);
  const ErrorChain found = thrownAndCaught(received);
  if (received.empty())
    require(found.size() == 1);  // says that there was an error, and no more
  else if (received.size() <= core::kMaxErrorLevels + 1)
    require(found == expected);
  else
    requireMarked(found, expected);
  require(thrownAndCaught(found) == found);

  v1::ErrorChain again;
  require(again.ParseFromString(toMessage(found).SerializeAsString()));
  require(fromMessage(again) == found);
  require(sentInParts(found) == found);
  for (const std::size_t maxBytes : {0, 5, 100, 1200})
    require(core::summaryOf(found, maxBytes).size() <= std::max<std::size_t>(maxBytes, 6));
  return 0;
}
