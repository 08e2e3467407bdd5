#include "platform/protobufencoding/internal/MessageShapes.h"

#include <mutex>
#include <shared_mutex>

#include "platform/protobufencoding/internal/MessageTypes.h"

namespace parallel::protobufencoding {

namespace {

// Shapes of lasting types.
class SharedShapes {
 public:
  const MessageShape& of(const google::protobuf::Descriptor* descriptor) {
    {
      const std::shared_lock lock(mutex_);
      const auto found = shapes_.find(descriptor);
      if (found != shapes_.end())
        return *found->second;
    }
    auto made = std::make_unique<const MessageShape>(descriptor);
    const std::unique_lock lock(mutex_);
    return *shapes_.emplace(descriptor, std::move(made)).first->second;
  }

 private:
  std::shared_mutex mutex_;
  std::unordered_map<const google::protobuf::Descriptor*, std::unique_ptr<const MessageShape>> shapes_;
};

SharedShapes& sharedShapes() {
  static auto* const shapes = new SharedShapes;  // never destroyed: conversions may run until the process ends
  return *shapes;
}

}  // namespace

const MessageShape& MessageShapes::of(const google::protobuf::Descriptor* descriptor) {
  if (MessageTypes::lastsForever(descriptor))
    return sharedShapes().of(descriptor);
  std::unique_ptr<const MessageShape>& own = own_[descriptor];
  if (own == nullptr)
    own = std::make_unique<const MessageShape>(descriptor);
  return *own;
}

const MessageShape& MessageShapes::of(const FieldShape& field) {
  const MessageShape* known = field.message_.load(std::memory_order_acquire);
  if (known == nullptr) {
    // A field's type is of the field's own pool and so lives exactly as long as the shape that remembers it.
    known = &of(field.descriptor->message_type());
    field.message_.store(known, std::memory_order_release);
  }
  return *known;
}

const FieldShape& MessageShapes::ofExtension(const google::protobuf::FieldDescriptor* extension) {
  std::unique_ptr<const FieldShape>& shape = extensions_[extension];
  if (shape == nullptr)
    shape = std::make_unique<const FieldShape>(extension);
  return *shape;
}

}  // namespace parallel::protobufencoding
