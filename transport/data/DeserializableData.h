// One incoming data item: content bytes that have not been interpreted yet.
//
// The reply does not say what an item is; whoever called the method knows, and calls the one operation that fits. The
// trap: an item can be read once. Every operation consumes the stream, and a second one finds it empty.
//
// Ownership: shares the stream with the other items of its payload; host values returned are the caller's.
// Threads:   one at a time per payload, and its items in their order, each to its end before the next is touched.
// Errors:    whatever goes wrong is logged (level 16) and replaced by the operation's own identified exception, named
//            below, of component "parallel:cluster". The stream stays wherever the failure left it.
#pragma once

#include <memory>
#include <string>

#include "platform/tova/StdShareable.h"
#include "platform/tova/qxArrayProxy.h"
#include "transport/export.h"

namespace parallel::spf::transport {

class ByteStream;

class PARALLEL_SPF_TRANSPORT_EXPORT DeserializableData : public tova::factory::full::StdShareable {
 public:
  // Reads nothing. Create with std::make_shared.
  explicit DeserializableData(std::shared_ptr<ByteStream> stream);
  ~DeserializableData() override;

  // The item as a ResultPayload message, decoded to a struct. Damaged bytes are not an error in themselves: what the
  // parser made of them is decoded. `DeserializeProtobufError`.
  tova::factory::qxArrayProxy deserializeProtobuf();

  // The item as a serialised host array; a share of the default when the item has no bytes at all and there is a
  // default. `DeserializeQxArrayError`.
  tova::factory::qxArrayProxy deserializeQxArray(const tova::factory::qxArrayProxy& defaultValue);

  // The item as a uint8 column: 8 bytes of length (big-endian), then that many bytes; what follows them is discarded.
  // When fewer follow, the rest of the column is zero. `DeserializePlainError`.
  tova::factory::qxArrayProxy deserializePlain();

  // The item's bytes into a file, created or truncated. After a failure the file holds what was written until then.
  // `DeserializeToFileError`.
  void deserializeToFile(const std::u16string& path);

 private:
  std::shared_ptr<ByteStream> stream_;
};

}  // namespace parallel::spf::transport
