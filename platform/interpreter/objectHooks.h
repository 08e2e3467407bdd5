// The interpreter's save and load hooks: how objects inside an array get their saved form, and how they come back.
//
// A native class takes part by registering, under its class name, how its objects are saved (to an array without
// objects), loaded (from that array) and validated. An object array's saved form is a 1-by-1 struct with the fields
// "SavedClass" (text) and "SavedValue" (what the class's save function gave), and no others.
// Threads:   any number at once, on different arrays. The class's functions run on the calling thread, without a lock.
// Errors:    when one throws, the array given is unchanged.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/array/qxArray.h"

// Returns `array` itself when nothing inside it (to any depth of lists and structs) is an object. Otherwise returns a
// new array, owned by the caller, in which every object stands in its saved form. Throws `CannotSave` naming the class
// and the path when a class has no registered form or its save function gives no array; what a save function throws
// passes through.
qxArray* inRunSaveObjFunction(qxArray* array);

// Replaces every saved form inside `array`, in place, by the loaded object. A struct whose "SavedClass" names no
// registered class stays a struct. What a load function throws passes through.
void inRunLoadObjFunction(qxArray* array);

// Calls the validate function of every object inside `array`; the first one that throws ends the walk.
void inValidateLoadedObject(qxArray* array);

namespace interpreter {

struct ObjectForm {
  std::function<qxArrayPtr(const std::shared_ptr<void>& object)> save;
  std::function<std::shared_ptr<void>(const qxArray* saved)> load;
  std::function<void(const std::shared_ptr<void>& object)> validate;  // may be empty
};

// Thread-safe. Registering a name again replaces the form.
void registerObjectForm(std::string className, ObjectForm form);
void unregisterObjectForm(const std::string& className);

}  // namespace interpreter
