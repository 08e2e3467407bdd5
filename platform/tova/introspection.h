// What the class system holds, as plain values: everything that a front end needs to show classes it knows nothing of.
//
// Answers are about the calling thread's classes (classMode.h), as they are at the moment; what is returned is a copy
// and stays as it is. Threads: any.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/array/qxArray.h"

namespace tova {

struct MethodDescription {
  std::string name;
  std::string description;
  std::string owner;  // the full name of the class that declares it
  unsigned flags = 0;
  bool isStatic = false;
  std::vector<std::string> inputs;   // types, without the object's own
  std::vector<std::string> outputs;  // types; {"void"} for none
  std::size_t outputCount = 0;
  std::string signature;  // "any = deserializeQxArray(any)"
};

struct SuperclassDescription {
  std::string name;
  bool isHidden = false;
  bool inheritsMethods = true;
  bool isRegistered = false;
};

struct ClassDescription {
  std::string name;
  std::string fullName;
  std::string description;
  std::string detailedDescription;
  std::string client;              // who registered it; empty for the platform and for libraries that did not say
  unsigned long registration = 0;  // grows by one when a class of this name takes another's place
  int version = 0;
  bool isHandle = false;
  bool isAbstract = false;
  bool isSealed = false;
  bool isHidden = false;
  bool hasConstructor = false;
  std::vector<SuperclassDescription> superclasses;
  std::vector<MethodDescription> methods;           // declared here, in order
  std::vector<MethodDescription> inheritedMethods;  // from superclasses, in the order of search
};

// Full names, each before what is inside it, siblings in alphabetical order.
std::vector<std::string> listNamespaces();

enum class Listing { Visible, All };

// Full names in the order of registration. `NoSuchNamespace`.
std::vector<std::string> listClasses(std::string_view namespaceName, Listing listing = Listing::Visible);

bool hasClass(std::string_view fullName);

// `NoSuchClass`.
ClassDescription describeClass(std::string_view fullName);

// The class of a handle, which may be one that was replaced since. `NotAHandle`, `InvalidHandle`.
ClassDescription describeClassOf(const qxArray* handle);

// Whether the class is `ancestor` or derives from it. `NoSuchClass` for the first.
bool isSubclass(std::string_view fullName, std::string_view ancestor);

// Whether the array is a handle whose native object is still there.
bool isValidHandle(const qxArray* array);

}  // namespace tova
