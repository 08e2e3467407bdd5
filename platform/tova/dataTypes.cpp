#include "platform/tova/dataTypes.h"

#include "platform/tova/BindingRegistry.h"
#include "platform/tova/COSClass.h"
#include "platform/tova/internal/ClassTree.h"
#include "platform/tova/internal/names.h"

namespace tova::factory::detail {
namespace {

bool isLineOfText(const qxArray* array) {
  if (qxGetClass(array) != qxClass::Text)
    return false;
  const qxDimensions dimensions = qxGetDimensions(array);
  const bool isRow = dimensions.size() == 2 && dimensions[0] == 1;
  return isRow || qxGetNumberOfElements(array) == 0;
}

std::string shapeText(const qxArray* array) {
  std::string text;
  for (const std::size_t extent : qxGetDimensions(array))
    text += (text.empty() ? "" : "-by-") + std::to_string(extent);
  return text;
}

}  // namespace

void initStringDataTypes() {
  const auto tree = internal::currentTree();
  tree->addDataType("TovaFactoryString");
  tree->addDataType("TovaFactoryString scalar");
}

bool isKnownType(std::string_view type) {
  return internal::currentTree()->hasDataType(type) || internal::isFullClassName(type);
}

bool isOfType(const qxArray* array, std::string_view type) {
  if (type == "any")
    return true;
  if (type == "TovaFactoryString")
    return qxGetClass(array) == qxClass::Text;
  if (type == "TovaFactoryString scalar")
    return isLineOfText(array);
  const auto cls = basic::BindingRegistry::classOf(array);
  return cls && cls->isA(type);
}

std::string describeValue(const qxArray* array) {
  if (array == nullptr)
    return "nothing";
  if (qxGetClass(array) == qxClass::Object)
    return qxGetObjectClassName(array);
  return shapeText(array) + " " + std::string(qxClassName(qxGetClass(array)));
}

}  // namespace tova::factory::detail
