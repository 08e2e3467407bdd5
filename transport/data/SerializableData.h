// One outgoing data item: a share of a host array and the rule, its encoder, that turns the array into bytes.
//
// An encoder writes content only. Neither the kind of an item nor its length is on the wire: the method that is called
// says the kind, and the payload's framing says where the item ends. Encodings: docs/container.md.
//
// Ownership: takes its own share of the array, so later changes to the caller's array do not reach the item. Items live
//            in std::shared_ptr and are never copied.
// Threads:   an item does not change; any thread may serialise it that may use the host's arrays, several at once.
// Errors:    a factory does not look at the array. What is wrong with it (class, size, a missing file) shows when the
//            item is serialised; the bytes written until then stay written and the item can be serialised again.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "platform/tova/StdShareable.h"
#include "platform/tova/qxArrayProxy.h"
#include "transport/export.h"

namespace parallel::spf::transport {

class ByteSink;

class PARALLEL_SPF_TRANSPORT_EXPORT SerializableData : public tova::factory::full::StdShareable {
 public:
  using Encoder = std::function<void(const qxArray*, ByteSink&)>;
  using SizeHint = std::function<std::size_t(const qxArray*)>;

  // The four kinds. A protobuf item is the encoding of the message that a struct describes; an array item the whole
  // array; a plain item the first bytes of the array's data, one per element whatever the size of an element; a file
  // item what the file named by a text array holds at the moment of serialising.
  static std::shared_ptr<SerializableData> createProtobuf(const tova::factory::qxConstArrayProxy& array);
  static std::shared_ptr<SerializableData> createQxArray(const tova::factory::qxConstArrayProxy& array);
  static std::shared_ptr<SerializableData> createPlain(const tova::factory::qxConstArrayProxy& array);
  static std::shared_ptr<SerializableData> createFile(const tova::factory::qxConstArrayProxy& array);

  // For an encoder of one's own; create with std::make_shared.
  SerializableData(const tova::factory::qxConstArrayProxy& array, Encoder encoder, SizeHint sizeHint = {});
  ~SerializableData() override;

  // Encodes anew at every call. An empty encoder throws std::bad_function_call.
  void serialize(ByteSink& sink) const;

  // About how many bytes serialize() will write, never more than a little too many; 0 when that is not known cheaply or the
  // hint throws.
  std::size_t serializedSizeHint() const noexcept;

 private:
  qxArrayPtr array_;
  Encoder encoder_;
  SizeHint sizeHint_;
};

}  // namespace parallel::spf::transport
