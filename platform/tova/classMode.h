// How far registered classes reach: the whole process, or one user scope.
//
// In process-wide mode, the default, there is one tree of classes. In per-user-scope mode a thread inside a scope sees
// that scope's classes only; threads in no scope share the process's tree. A host picks the mode once, before libraries
// are loaded.
//
// Ownership: a scope's classes end with the scope, but for those that still have handles.
// Threads:   several threads may be inside one scope. A thread is inside the scope that it entered last and not left.
#pragma once

#include <memory>

namespace tova {

namespace internal {
class ClassTree;
}  // namespace internal

enum class ClassMode { ProcessWide, PerUserScope };

void setClassMode(ClassMode mode) noexcept;
ClassMode classMode() noexcept;

// Ends all classes of the process's tree. No thread may be using a namespace of it; handles go on working.
void clearProcessClasses();

class UserScope {
 public:
  UserScope();
  ~UserScope();
  UserScope(const UserScope&) = delete;
  UserScope& operator=(const UserScope&) = delete;

 private:
  friend class UserScopeEntry;
  std::shared_ptr<internal::ClassTree> tree_;
};

// Puts the calling thread inside a scope while it lives. Ends on the same thread, in reverse order of entering.
class UserScopeEntry {
 public:
  explicit UserScopeEntry(const UserScope& scope) noexcept;
  ~UserScopeEntry();
  UserScopeEntry(const UserScopeEntry&) = delete;
  UserScopeEntry& operator=(const UserScopeEntry&) = delete;

 private:
  std::shared_ptr<internal::ClassTree> outer_;
};

}  // namespace tova
