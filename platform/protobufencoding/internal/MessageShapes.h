// The shapes that one conversion uses.
// Shapes of types that last as long as the process (generated ones, and those of loaded descriptor sets) are made once
// for all conversions. Those of any other pool, which may end and leave its addresses to others, live with this object.
// Threads: one thread at a time per object.
#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <memory>

#include "platform/protobufencoding/internal/MessageShape.h"

namespace parallel::protobufencoding {

// A compiled type as encode needs it.
struct CompiledType {
  const MessageShape& shape;
  std::unique_ptr<const google::protobuf::Message> empty;
};

class MessageShapes {
 public:
  // The compiled type that this text names; null when there is none, or the array is no text row.
  static const CompiledType* compiledType(const qxArray* name);

  const MessageShape& of(const google::protobuf::Descriptor* descriptor);
  // Of a field of kind Message.
  const MessageShape& of(const FieldShape& field);
  const FieldShape& ofExtension(const google::protobuf::FieldDescriptor* extension);

 private:
  // Conversions mostly leave these empty, and few are large: making and ending a hash table costs more than it saves.
  std::map<const google::protobuf::Descriptor*, std::unique_ptr<const MessageShape>> own_;
  std::map<const google::protobuf::FieldDescriptor*, std::unique_ptr<const FieldShape>> extensions_;
};

}  // namespace parallel::protobufencoding
