// The fields that structs of one message type have, and their names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "platform/array/qxArray.h"
#include "platform/threads/Mutex.h"

namespace parallel::protobufencoding {

struct FieldShape;

// What a field of a struct means.
struct FieldBinding {
  enum class Role : std::uint8_t { MessageType, UnknownFields, TypeUrl, Field };
  Role role;
  const FieldShape* field;  // of the role Field
};

// The fields of a struct in their order: MessageType, those of the message, UnknownFields. Constant once made, and
// shared. Ownership: the fields must last as long as this does.
class StructLayout {
 public:
  StructLayout(bool withType, std::span<const FieldShape* const> fields, bool withUnknown);
  StructLayout(const StructLayout&) = delete;
  StructLayout& operator=(const StructLayout&) = delete;

  const std::vector<FieldBinding>& bindings() const { return bindings_; }  // what the names mean, one by one
  std::span<const FieldBinding> fields() const { return fields_; }         // those of the role Field
  bool hasUnknown() const { return hasUnknown_; }
  bool has(std::span<const FieldShape* const> fields, bool unknown) const;  // and no others
  const qxFieldNamesPtr& names() const { return names_; }
  // Whether the structs share the names, which tells without comparing any that they are these. False says nothing.
  bool isOf(const qxArray* structs) const { return qxGetFieldNames(structs).data() == nameTable_; }

 private:
  std::vector<FieldBinding> bindings_;
  std::span<const FieldBinding> fields_;
  bool hasUnknown_;
  qxFieldNamesPtr names_;
  const std::string* nameTable_;
};

using StructLayoutPtr = std::shared_ptr<const StructLayout>;

// The layouts made last for one message type, so that the next struct of the same kind shares its names.
// Threads: any, at once.
class StructLayouts {
 public:
  // Made if there is none. The fields must last as long as this object does.
  StructLayoutPtr find(bool withType, std::span<const FieldShape* const> fields, bool withUnknown);
  // The one whose names the structs share; null when it is not known.
  StructLayoutPtr findOf(const qxArray* structs);

 private:
  static constexpr std::size_t kMostKept = 16;

  threads::Mutex mutex_;
  std::vector<StructLayoutPtr> kept_ ZKS_GUARDED_BY(mutex_);
  std::size_t nextToGo_ ZKS_GUARDED_BY(mutex_) = 0;
};

}  // namespace parallel::protobufencoding
