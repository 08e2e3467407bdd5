// Finding namespaces of the class system, to register classes in. To look at what is there, use introspection.h.
#pragma once

// Whether each user scope has classes of its own (see classMode.h), so that a library registers them for each scope.
bool omGetTovaUsingUSM() noexcept;

namespace tova {

class COSNamespace;

// The outermost namespace of the name, made if there is none; of the calling thread's user scope in per-user-scope
// mode. The class system owns it. `BadName` when the name is not an identifier.
COSNamespace* omGetNamespace(const char* name);
// The same for a namespace inside another one.
COSNamespace* omGetInnerNamespace(COSNamespace* outer, const char* name);

}  // namespace tova
