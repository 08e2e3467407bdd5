#include "platform/tova/COSClassInfo.h"

namespace tova {

COSClassInfo::~COSClassInfo() = default;

}  // namespace tova
