#include "platform/protobufencoding/internal/MessageShapes.h"

#include <unordered_map>

#include "platform/errors/ustring.h"
#include "platform/protobufencoding/internal/MessageTypes.h"
#include "platform/protobufencoding/internal/encodeErrors.h"
#include "platform/protobufencoding/internal/hostValues.h"
#include "platform/threads/SharedMutex.h"

namespace parallel::protobufencoding {

namespace {

// Shapes of lasting types, which are kept for good.
class SharedShapes {
 public:
  // Null when there is none so far.
  const MessageShape* find(const google::protobuf::Descriptor* descriptor) {
    const threads::ReaderLock lock(mutex_);
    const auto found = shapes_.find(descriptor);
    return found == shapes_.end() ? nullptr : found->second.get();
  }

  const MessageShape& of(const google::protobuf::Descriptor* descriptor) {
    if (const MessageShape* known = find(descriptor))
      return *known;
    auto made = std::make_unique<const MessageShape>(descriptor);
    const threads::WriterLock lock(mutex_);
    return *shapes_.emplace(descriptor, std::move(made)).first->second;
  }

  const CompiledType* compiledType(std::u16string_view name) {
    {
      const threads::ReaderLock lock(mutex_);
      const auto found = compiled_.find(asBytes(name));
      if (found != compiled_.end())
        return &found->second;
    }
    std::unique_ptr<const google::protobuf::Message> empty = MessageTypes::createCompiled(fl::i18n::to_string(name));
    if (empty == nullptr)
      return nullptr;
    const MessageShape& shape = of(empty->GetDescriptor());
    const threads::WriterLock lock(mutex_);
    return &compiled_.try_emplace(asBytes(shape.typeText()), CompiledType{shape, std::move(empty)}).first->second;
  }

 private:
  threads::SharedMutex mutex_;
  std::unordered_map<const google::protobuf::Descriptor*, std::unique_ptr<const MessageShape>> shapes_
      ZKS_GUARDED_BY(mutex_);
  // By the bytes of the text that the shape has.
  std::unordered_map<std::string_view, CompiledType> compiled_ ZKS_GUARDED_BY(mutex_);
};

SharedShapes& sharedShapes() {
  static auto* const shapes = new SharedShapes;  // never destroyed: conversions may run until the process ends
  return *shapes;
}

}  // namespace

const CompiledType* MessageShapes::compiledType(const qxArray* name) {
  if (name == nullptr || qxGetClass(name) != qxClass::Text || !isVector(name))
    return nullptr;
  const auto units = qxGetElements<char16_t>(name);
  return sharedShapes().compiledType({units.data(), units.size()});
}

const MessageShape& MessageShapes::of(const google::protobuf::Descriptor* descriptor) {
  // A lasting type never leaves its address to another.
  if (const MessageShape* known = sharedShapes().find(descriptor))
    return *known;
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
