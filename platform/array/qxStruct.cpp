// Struct arrays: named fields, a value per element and field.
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"
#include "platform/errors/ustring.h"

using qx_detail::Shape;
using qx_detail::StructStorage;

namespace {

void checkFieldName(std::string_view name) {
  if (name.empty())
    throw Exception<host::array::BadFieldName>(name, "it is empty");
  if (!fl::i18n::isWellFormed(name))
    throw Exception<host::array::BadFieldName>(name, "it is not UTF-8");
}

void addUnsetField(StructStorage& storage, std::string name, std::size_t count) {
  storage.add(std::move(name), qx_detail::unsetElements(count));
}

const StructStorage& checkedStruct(const qxArray* array) {
  qx_detail::checkClass(array, qxClass::Struct);
  return qx_detail::storageOf<StructStorage>(array);
}

[[noreturn]] void throwNoSuchField(const StructStorage& storage, std::string_view name) {
  std::string known;
  for (const std::string& field : storage.names())
    known += (known.empty() ? "" : ", ") + field;
  throw Exception<host::array::NoSuchField>(name, known);
}

}  // namespace

qxArrayPtr qxCreateStructArray(qxDimensions dimensions, std::span<const std::string> fieldNames) {
  Shape shape = Shape::makeChecked(dimensions, sizeof(qxArrayPtr), qxClass::Struct);
  auto storage = std::make_unique<StructStorage>();
  for (const std::string& name : fieldNames) {
    checkFieldName(name);
    if (storage->find(name) != StructStorage::kNoField) {
      throw Exception<host::array::BadFieldName>(name, "it occurs twice");
    }
    addUnsetField(*storage, name, shape.count());
  }
  return qx_detail::makeShare(qxClass::Struct, false, std::move(shape), std::move(storage));
}

std::span<const std::string> qxGetFieldNames(const qxArray* array) {
  return checkedStruct(array).names();
}

bool qxHasField(const qxArray* array, std::string_view name) {
  return checkedStruct(array).find(name) != StructStorage::kNoField;
}

void qxAddField(qxArray* array, std::string name) {
  if (qxHasField(array, name))
    return;
  checkFieldName(name);
  addUnsetField(qx_detail::uniqueStorage<StructStorage>(array), std::move(name), qxGetNumberOfElements(array));
}

const qxArray* qxGetField(const qxArray* array, std::size_t element, std::string_view name) {
  const StructStorage& storage = checkedStruct(array);
  const std::size_t field = storage.find(name);
  if (field == StructStorage::kNoField)
    throwNoSuchField(storage, name);
  qx_detail::checkIndex(element, qxGetNumberOfElements(array));
  return storage.values(field)[element].get();
}

void qxSetField(qxArray* array, std::size_t element, std::string_view name, qxArrayPtr value) {
  qx_detail::checkClass(array, qxClass::Struct);
  qx_detail::checkIndex(element, qxGetNumberOfElements(array));
  const std::string field(name);  // a copy: `name` may lie in the storage that is about to be replaced
  qxAddField(array, field);
  StructStorage& storage = qx_detail::uniqueStorage<StructStorage>(array);
  storage.values(storage.find(field))[element] = std::move(value);
}
