// The field names of the structs of one type that have only some of its fields: those made last, so that the next
// struct of the same kind shares them. Threads: any, at once.
#pragma once

#include <cstddef>
#include <mutex>
#include <span>
#include <vector>

#include "platform/array/qxArray.h"

namespace parallel::protobufencoding {

struct FieldShape;

class PartialFieldNames {
 public:
  // MessageType, if `withType`, then the names of the fields, then UnknownFields, if `withUnknown`.
  static qxFieldNamesPtr make(bool withType, std::span<const FieldShape* const> fields, bool withUnknown);

  // The same, made before if it can be. The fields must last as long as this object does.
  qxFieldNamesPtr find(bool withType, std::span<const FieldShape* const> fields, bool withUnknown);

 private:
  static constexpr std::size_t kMostKept = 16;

  struct Kept {
    std::vector<const FieldShape*> fields;
    bool withUnknown;
    qxFieldNamesPtr names;
  };

  std::mutex mutex_;
  std::vector<Kept> kept_;    // guarded by mutex_
  std::size_t nextToGo_ = 0;  // guarded by mutex_
};

}  // namespace parallel::protobufencoding
