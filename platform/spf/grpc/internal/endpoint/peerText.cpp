#include "platform/spf/grpc/internal/endpoint/peerText.h"

#include <charconv>

namespace agent::spf::grpc_transport::internal {

namespace {

// The byte that "%5B" stands for; a percent sign that begins nothing of the kind stands for itself.
char takeCharacter(std::string_view& text) {
  constexpr std::size_t kEscapeBytes = 3;
  constexpr int kHexadecimal = 16;
  unsigned char byte = 0;
  if (text.size() >= kEscapeBytes && text[0] == '%') {
    const char* const end = text.data() + kEscapeBytes;
    if (std::from_chars(text.data() + 1, end, byte, kHexadecimal).ptr == end) {
      text.remove_prefix(kEscapeBytes);
      return static_cast<char>(byte);
    }
  }
  const char first = text.front();
  text.remove_prefix(1);
  return first;
}

}  // namespace

std::string peerText(std::string_view grpcName) {
  for (const std::string_view scheme : {"ipv4:", "ipv6:"}) {
    if (!grpcName.starts_with(scheme))
      continue;
    grpcName.remove_prefix(scheme.size());
    std::string text;
    while (!grpcName.empty())
      text += takeCharacter(grpcName);
    return text;
  }
  return grpcName.starts_with("unix") ? kSocketFilePeer : std::string(grpcName);
}

}  // namespace agent::spf::grpc_transport::internal
