// Fuzz target: what any bytes parse to becomes a struct; when they are a valid message, it comes back from the struct.
// Nothing is printed of bytes that are none.
#include <google/protobuf/stubs/common.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/protobufencoding/parseQuietly.h"
#include "platform/protobufencoding/protobufencoding.h"
#include "platform/protobufencoding/testing/canonicalAnys.h"
#include "platform/protobufencoding/testing/everything2.pb.h"
#include "platform/protobufencoding/testing/everything3.pb.h"
#include "platform/protobufencoding/testing/hostLiterals.h"

namespace {

using namespace parallel::protobufencoding;

bool parsing = false;

// Of the parser's; text of proto2 is reported when it is written, too.
void abortAtLines() {
#if GOOGLE_PROTOBUF_VERSION < 4022000  // later ones write through a logging library that has no such switch
  static const auto before = google::protobuf::SetLogHandler(
      [](google::protobuf::LogLevel, const char*, int, const std::string&) { parsing ? std::abort() : void(); });
  static_cast<void>(before);
#endif
}

void goOnceAround(google::protobuf::Message& message, const std::uint8_t* data, std::size_t nbytes) {
  parsing = true;
  const bool valid = parseQuietly(message, data, nbytes) && message.IsInitialized();
  parsing = false;
  const qxArrayPtr value = decode(message, nullptr);
  if (!valid)
    return;
  testing::writeAnysAnew(message, nullptr);
  if (testing::deterministic(*encode(value.get(), nullptr, 0)) != testing::deterministic(message))
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t nbytes) {
  abortAtLines();
  testing::Everything proto3;
  goOnceAround(proto3, data, nbytes);
  testing::Everything2 proto2;
  goOnceAround(proto2, data, nbytes);
  return 0;
}
