// The description of one host class, which its library writes and the class system owns.
//
// A description says what the class is called and what it is, fills the class with methods and superclasses when it is
// registered, and is asked what to do when the host lets go of an object. Derive from StdShareableHandleClassInfo,
// which answers everything but initializeClass.
//
// Ownership: a registered description belongs to the class system, which deletes it with its class: when the class is
//            replaced or its namespace ends, and no handle of the class is left. The library's code must stay loaded
//            until then. Descriptions are allocated by utCalloc and freed by utFree, whoever creates or deletes them.
// Threads:   initializeClass runs once, on the registering thread. The other operations may be called by any thread.
// Binary:    the order of the virtual operations is part of the interface between a library and its host.
#pragma once

#include <cstddef>

#include "platform/tova/utMemory.h"

namespace tova {

class COSClass;
class COSClient;

namespace factory {
class TovaMethod;
namespace basic {
class Binding;
}  // namespace basic
}  // namespace factory

class COSClassInfo {
 public:
  static void* operator new(std::size_t nbytes) { return utCalloc(1, nbytes); }
  static void operator delete(void* room) noexcept { utFree(room); }

  COSClassInfo(const COSClassInfo&) = delete;
  COSClassInfo& operator=(const COSClassInfo&) = delete;
  virtual ~COSClassInfo();

  // The short name, one identifier, and one line about the class. Valid as long as the description.
  virtual const char* name() const = 0;
  virtual const char* description() const = 0;
  // The long help text; the one line again where there is nothing to add.
  virtual const char* detailedDescription() const = 0;
  // The version of the form in which objects are saved inside arrays; 0: the class says nothing about saving.
  virtual int version() const = 0;
  // Adds superclasses and methods. `client` is who registers, possibly null. When it throws, nothing is registered.
  virtual void initializeClass(COSClass* cls, const COSClient* client) = 0;
  // The constructor that the host may call, as a new static method whose output is of the class, which passes to the
  // caller; null when objects come from elsewhere.
  virtual factory::TovaMethod* createConstructor() const = 0;
  // The host let go of its last handle of an object: ends the binding, and with it the host's reference.
  virtual void releaseBoundObject(factory::basic::Binding& binding) noexcept = 0;
  // Runs before the class's methods are deleted.
  virtual void finalizeClass(COSClass* cls) noexcept = 0;
  // Whether objects are handles: all copies of a value are one object. Only such classes can be bound.
  virtual bool isHandle() const = 0;
  // An abstract class has subclasses but no objects of its own; a sealed one has no subclasses; a hidden one is not
  // listed unless asked for.
  virtual bool isAbstract() const = 0;
  virtual bool isSealed() const = 0;
  virtual bool isHidden() const = 0;

 protected:
  COSClassInfo() = default;
};

}  // namespace tova
