// Fuzz target: any error frame is read as the generated parser reads it, becomes real nested exceptions and travels on
// as the same chain, in bounded memory.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/errors/ustring.h"
#include "platform/spf/core/errors.h"
#include "platform/spf/grpc/internal/wire/errorMessage.h"
#include "platform/spf/grpc/testing/errorReference.h"
#include "tests/fuzzing/quietProtobuf.h"

namespace {

using namespace agent::spf;
using core::ErrorChain;
using core::ErrorLevel;
using grpc_transport::internal::decodeError;
using grpc_transport::internal::ErrorParts;
using grpc_transport::internal::ReceivedError;
using grpc_transport::internal::SliceCursor;
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

ReceivedError received(const std::string& bytes) {
  const std::vector<grpc::Slice> slices{grpc::Slice(bytes)};
  ReceivedError error;
  decodeError(SliceCursor(slices), error);
  return error;
}

ErrorChain sentInParts(const std::vector<v1::ErrorChain>& parts) {
  ErrorParts gathered;
  for (std::size_t i = 0; i + 1 < parts.size(); ++i)
    gathered.add(received(parts[i].SerializeAsString()));
  return gathered.finish(received(parts.back().SerializeAsString()));
}

// Each level in a part of its own.
std::vector<v1::ErrorChain> levelByLevel(const v1::ErrorChain& message) {
  std::vector<v1::ErrorChain> parts(1);
  for (const auto& level : message.levels()) {
    *parts.back().add_levels() = level;
    parts.emplace_back();
  }
  return parts;
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
  const std::string bytes(reinterpret_cast<const char*>(data), nbytes);
  v1::ErrorChain message;
  const bool parses = message.ParseFromString(bytes);
  ReceivedError error;
  try {
    error = received(bytes);
  } catch (const FrameworkError&) {
    require(!parses);
    return 0;
  }
  require(parses && agent::spf::testing::saysTheSame(error, message));

  const ErrorChain whole = agent::spf::testing::chainOf(message);
  const ErrorChain chain = ErrorParts().finish(error);
  if (whole.size() <= core::kMaxErrorLevels + 1)
    require(chain == whole);
  else
    requireMarked(chain, whole);
  require(sentInParts(levelByLevel(message)) == chain);

  const ErrorChain found = thrownAndCaught(chain);
  if (chain.empty())
    require(found.size() == 1);  // says that there was an error, and no more
  else
    require(found == asThrown(chain));
  require(thrownAndCaught(found) == found);

  require(sentInParts({toMessage(found)}) == found);
  require(sentInParts(grpc_transport::internal::toParts(found)) == found);
  for (const std::size_t maxBytes : {0, 5, 100, 1200})
    require(core::summaryOf(found, maxBytes).size() <= std::max<std::size_t>(maxBytes, 6));
  return 0;
}
