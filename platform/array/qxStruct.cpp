// Struct arrays: named fields, a value per element and field.
#include "platform/array/internal/ElementStorages.h"
#include "platform/array/internal/share.h"
#include "platform/errors/Exception.h"
#include "platform/errors/catalogue.h"

using qx_detail::Shape;
using qx_detail::StructStorage;

namespace {

const StructStorage& checkedStruct(const qxArray* array) {
  qx_detail::checkClass(array, qxClass::Struct);
  return qx_detail::storageOf<StructStorage>(array);
}

[[noreturn]] void throwNoSuchField(const StructStorage& storage, std::string_view name) {
  std::string known;
  for (const std::string& field : storage.names().all())
    known += (known.empty() ? "" : ", ") + field;
  throw Exception<host::array::NoSuchField>(name, known);
}

}  // namespace

qxFieldNamesPtr qxMakeFieldNames(std::span<const std::string> names) {
  return std::make_shared<const qxFieldNames>(names);
}

qxArrayPtr qxCreateStructArray(qxDimensions dimensions, std::span<const std::string> fieldNames) {
  return qxCreateStructWithNames(dimensions, qxMakeFieldNames(fieldNames));
}

qxArrayPtr qxCreateStructWithNames(qxDimensions dimensions, qxFieldNamesPtr names) {
  Shape shape = Shape::makeChecked(dimensions, sizeof(qxArrayPtr), qxClass::Struct);
  auto storage = std::make_unique<StructStorage>(shape.count(), std::move(names));
  return qx_detail::makeShare(qxClass::Struct, false, std::move(shape), std::move(storage));
}

qxArrayPtr qxCreateStructWithNames(qxDimensions dimensions, qxFieldNamesPtr names, std::vector<qxArrayPtr> values) {
  Shape shape = Shape::makeChecked(dimensions, sizeof(qxArrayPtr), qxClass::Struct);
  if (values.size() != shape.count() * names->size())
    throw Exception<host::array::WrongShape>(
        qx_detail::dimensionsText(dimensions),
        std::to_string(values.size()) + " values of " + std::to_string(names->size()) + " fields");
  auto storage = std::make_unique<StructStorage>(shape.count(), std::move(names), std::move(values));
  return qx_detail::makeShare(qxClass::Struct, false, std::move(shape), std::move(storage));
}

std::span<const std::string> qxGetFieldNames(const qxArray* array) {
  return checkedStruct(array).names().all();
}

bool qxHasField(const qxArray* array, std::string_view name) {
  return checkedStruct(array).names().find(name) != qxFieldNames::kNoField;
}

void qxAddField(qxArray* array, std::string name) {
  if (qxHasField(array, name))
    return;
  qx_detail::checkFieldName(name);
  qx_detail::uniqueStorage<StructStorage>(array).add(std::move(name));
}

const qxArray* qxGetField(const qxArray* array, std::size_t element, std::string_view name) {
  const StructStorage& storage = checkedStruct(array);
  const std::size_t field = storage.names().find(name);
  if (field == qxFieldNames::kNoField)
    throwNoSuchField(storage, name);
  qx_detail::checkIndex(element, qxGetNumberOfElements(array));
  return storage.values(field)[element].get();
}

void qxSetField(qxArray* array, std::size_t element, std::string_view name, qxArrayPtr value) {
  std::size_t field = checkedStruct(array).names().find(name);
  qx_detail::checkIndex(element, qxGetNumberOfElements(array));
  if (field == qxFieldNames::kNoField) {
    field = checkedStruct(array).names().size();
    qxAddField(array, std::string(name));
  }
  qx_detail::uniqueStorage<StructStorage>(array).values(field)[element] = std::move(value);
}

const qxArray* qxGetFieldAt(const qxArray* array, std::size_t element, std::size_t field) {
  const StructStorage& storage = checkedStruct(array);
  qx_detail::checkIndex(field, storage.names().size());
  qx_detail::checkIndex(element, array->shape.count());
  return storage.values(field)[element].get();
}

void qxSetFieldAt(qxArray* array, std::size_t element, std::size_t field, qxArrayPtr value) {
  qx_detail::checkIndex(field, checkedStruct(array).names().size());
  qx_detail::checkIndex(element, array->shape.count());
  qx_detail::uniqueStorage<StructStorage>(array).values(field)[element] = std::move(value);
}
