// Bases of native objects that the class system may wrap as host handles and share through std::shared_ptr.
#pragma once

#include <memory>

namespace tova::factory::full {

// A native object that host handles may be bound to. Polymorphic, so that the class system can recover the object.
class Wrappable {
 public:
  Wrappable(const Wrappable&) = delete;
  Wrappable& operator=(const Wrappable&) = delete;
  virtual ~Wrappable() = default;

 protected:
  Wrappable() = default;
};

// Create with std::make_shared, so that shared_from_this() works from the first moment.
class StdShareable : public std::enable_shared_from_this<StdShareable>, public Wrappable {};

// Tells the class system that a native object is gone: whatever it still knows of the object is forgotten. Called from
// the object's destructor; an object that was never bound is accepted.
void retract(const Wrappable* object) noexcept;

}  // namespace tova::factory::full
