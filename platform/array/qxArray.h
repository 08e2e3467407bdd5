// The host's array value: n-dimensional, column-major, shared by reference count with copy on write.
//
// Classes:   numeric (float64 to uint64, real or complex), boolean, text (UTF-16), list (values of any class), struct
//            (named fields, each element has a value per field) and object (one native handle).
// Ownership: a qxArray* is one share of a value. What a function here returns as qxArrayPtr, or as a bare non-const
//            qxArray* where the host's convention asks for it, belongs to the caller, who ends it with qxDestroyArray.
//            Const pointers and spans handed out stay valid until the share they came from is written to or destroyed.
// Threads:   different shares of one value may be used, written and destroyed by different threads at once. One share
//            is used by one thread at a time, or by any number that only read it or make shares of it.
// Errors:    functions throw platform errors (platform/errors): `WrongClass`, `IndexOutOfRange`, `WrongShape`,
//            `TooLarge`, `OutOfMemory`, `NoSuchField`, `BadFieldName`. Nothing is changed when they throw.
// Units:     counts are elements, nbytes are bytes. A complex element is two parts, real then imaginary, side by side.
// Shape:     at least two dimensions; dimensions may be 0. A missing second dimension means 1. Trailing ones past the
//            second are dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

struct qxArray;

enum class qxClass : std::uint8_t {
  Float64,
  Float32,
  Int8,
  Uint8,
  Int16,
  Uint16,
  Int32,
  Uint32,
  Int64,
  Uint64,
  Boolean,  // one byte an element, 0 or 1
  Text,     // one UTF-16 code unit (char16_t) an element
  List,
  Struct,
  Object,
};

// The class's name as users read it: "float64", "uint8", "boolean", "text", "list", "struct", "object".
std::string_view qxClassName(qxClass cls) noexcept;

// Ends one share. A null pointer is accepted.
void qxDestroyArray(qxArray* array) noexcept;

struct qxDestroyer {
  void operator()(qxArray* array) const noexcept { qxDestroyArray(array); }
};
using qxArrayPtr = std::unique_ptr<qxArray, qxDestroyer>;

using qxDimensions = std::span<const std::size_t>;

// --- Creation ---

// Zero-filled, without touching the pages of large arrays. `cls` is numeric or Boolean or Text; only numeric classes
// may be complex.
qxArrayPtr qxCreateNumericArray(qxDimensions dimensions, qxClass cls, bool complex = false);

// As above, but the bytes are unspecified until written: for a caller that fills every element.
qxArrayPtr qxCreateUninitializedArray(qxDimensions dimensions, qxClass cls, bool complex = false);

// An array over memory of another owner; `release` runs once, on whatever thread ends the last share. The memory must
// stay unchanged until then unless it is changed through this array; a write through a share that is not the only one
// copies it first. With `writable` false every write copies. `data` must be aligned for the class.
// If creation throws, `release` has not run and the memory stays the caller's.
qxArrayPtr qxAdoptArray(qxDimensions dimensions, qxClass cls, bool complex, void* data, bool writable,
                        std::function<void()> release);

qxArrayPtr qxCreateString(std::u16string_view text);   // 1-by-n text; 0-by-0 for the empty string
qxArrayPtr qxCreateStringUtf8(std::string_view utf8);  // the same from UTF-8; bad sequences become U+FFFD
qxArrayPtr qxCreateScalar(double value);               // 1-by-1 float64
qxArrayPtr qxCreateBoolean(bool value);                // 1-by-1 boolean
template <class T>
qxArrayPtr qxCreateScalarOf(T value);                   // 1-by-1 of the class that has such elements
qxArrayPtr qxCreateListArray(qxDimensions dimensions);  // each element empty until set
qxArrayPtr qxCreateStructArray(qxDimensions dimensions, std::span<const std::string> fieldNames);

// The field names of many structs, checked and kept once: for a caller that makes many structs of one kind. Immutable,
// and may be used by different threads at once.
class qxFieldNames;
using qxFieldNamesPtr = std::shared_ptr<const qxFieldNames>;

qxFieldNamesPtr qxMakeFieldNames(std::span<const std::string> names);
// With these fields; not null. A field added to the array later is not seen in `names`.
qxArrayPtr qxCreateStructWithNames(qxDimensions dimensions, qxFieldNamesPtr names);
// The same with their values: those of all elements for the first field, then for the second, ... A null pointer is an
// unset one. `WrongShape` when there are more or less.
qxArrayPtr qxCreateStructWithNames(qxDimensions dimensions, qxFieldNamesPtr names, std::vector<qxArrayPtr> values);

// A new share of the same value; costs a count.
qxArrayPtr qxCreateSharedCopy(const qxArray* array);

// Makes this share one of `value`'s. What it held before is given up.
void qxReplace(qxArray* array, qxArrayPtr value) noexcept;

// --- Shape and class ---

qxClass qxGetClass(const qxArray* array) noexcept;
bool qxIsComplex(const qxArray* array) noexcept;
bool qxIsNumeric(const qxArray* array) noexcept;  // a numeric class, not Boolean or Text
qxDimensions qxGetDimensions(const qxArray* array) noexcept;
std::size_t qxGetNumberOfElements(const qxArray* array) noexcept;  // the product of the dimensions
// Both parts of a complex element; 0 for List, Struct, Object.
std::size_t qxGetElementBytes(const qxArray* array) noexcept;
// Bytes of one part; 0 for List, Struct, Object.
std::size_t qxClassBytes(qxClass cls) noexcept;
std::size_t qxGetDataBytes(const qxArray* array) noexcept;  // elements times element bytes

// Gives the array other dimensions with the same product, else throws `WrongShape`.
void qxReshape(qxArray* array, qxDimensions dimensions);

// --- Element data of numeric, Boolean and Text arrays ---

// Null for List, Struct and Object, and possibly for arrays without elements.
const void* qxGetData(const qxArray* array) noexcept;
// Takes the value out of sharing first (copy on write).
void* qxGetWritableData(qxArray* array);

template <class T>
constexpr qxClass qxClassOf();

// Typed views. `WrongClass` when T is not the class's element type. A complex array's view has two T an element.
template <class T>
std::span<const T> qxGetElements(const qxArray* array);
template <class T>
std::span<T> qxGetWritableElements(qxArray* array);

// The element of a real 1-by-1 array whose class has elements of type T; null for any other array.
template <class T>
const T* qxFindScalar(const qxArray* array) noexcept;

// The text of a Text array in column-major order. `WrongClass` for other classes.
std::u16string qxGetString(const qxArray* array);
std::string qxGetStringUtf8(const qxArray* array);

// --- Lists ---

// Borrowed; null for an element never set. `IndexOutOfRange` past the end.
const qxArray* qxGetListElement(const qxArray* array, std::size_t index);
void qxSetListElement(qxArray* array, std::size_t index, qxArrayPtr value);

// --- Structs ---

// Field names keep the order in which they were added; a name is any non-empty UTF-8 text and occurs once.
std::span<const std::string> qxGetFieldNames(const qxArray* array);
bool qxHasField(const qxArray* array, std::string_view name);
void qxAddField(qxArray* array, std::string name);  // no effect when it is there
// Borrowed; null for a field never set. `NoSuchField`, `IndexOutOfRange`.
const qxArray* qxGetField(const qxArray* array, std::size_t element, std::string_view name);
// Adds the field when it is missing.
void qxSetField(qxArray* array, std::size_t element, std::string_view name, qxArrayPtr value);
// The same by the field's place among the names, without a search. `IndexOutOfRange` for either index.
const qxArray* qxGetFieldAt(const qxArray* array, std::size_t element, std::size_t field);
void qxSetFieldAt(qxArray* array, std::size_t element, std::size_t field, qxArrayPtr value);

// --- Objects ---

// A native object inside a host value. The saved form is what platform/interpreter asks of it.
qxArrayPtr qxCreateObject(std::string className, std::shared_ptr<void> native);
const std::string& qxGetObjectClassName(const qxArray* array);
std::shared_ptr<void> qxGetNative(const qxArray* array);

// --- Whole values ---

// Same class, shape, parts, bytes (so that a NaN equals itself), field names in any order, and elements all the way
// down. Objects are equal when they hold the same native object. Unset elements equal each other only.
bool qxEqual(const qxArray* left, const qxArray* right);

// --- Serialised form: docs/array-format.md ---

constexpr std::uint16_t qxSerializeDefaults = 32;

// The value as a uint8 column of its serialised bytes. `options` selects nothing at present; callers pass 32.
// `CannotSerialize` names the path of an object that has no saved form here (see inRunSaveObjFunction). `TooDeep` when
// the value nests deeper than qxMaxNesting.
qxArray* qxSerializeEx(const qxArray* array, std::uint16_t options);

// The array that the bytes describe, or null when they are not one whole well-formed array. Never reads outside the
// bytes, never allocates more than they can fill, and never nests deeper than qxMaxNesting. `OutOfMemory` when a
// well-formed array finds no room.
qxArray* qxDeserialize(const void* data, std::size_t nbytes);

// The most lists and structs that may stand around a value in its serialised form.
constexpr std::size_t qxMaxNesting = 256;

// --- Template bodies ---

namespace qx_detail {
qxArrayPtr createScalar(qxClass cls, const void* element);
const void* scalarData(const qxArray* array, qxClass cls) noexcept;
const void* checkedData(const qxArray* array, qxClass cls);
void* checkedWritableData(qxArray* array, qxClass cls);
}  // namespace qx_detail

template <class T>
constexpr qxClass qxClassOf() {
  if constexpr (std::is_same_v<T, double>)
    return qxClass::Float64;
  else if constexpr (std::is_same_v<T, float>)
    return qxClass::Float32;
  else if constexpr (std::is_same_v<T, std::int8_t>)
    return qxClass::Int8;
  else if constexpr (std::is_same_v<T, std::uint8_t>)
    return qxClass::Uint8;
  else if constexpr (std::is_same_v<T, std::int16_t>)
    return qxClass::Int16;
  else if constexpr (std::is_same_v<T, std::uint16_t>)
    return qxClass::Uint16;
  else if constexpr (std::is_same_v<T, std::int32_t>)
    return qxClass::Int32;
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return qxClass::Uint32;
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return qxClass::Int64;
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return qxClass::Uint64;
  else if constexpr (std::is_same_v<T, bool>)
    return qxClass::Boolean;
  else {
    static_assert(std::is_same_v<T, char16_t>, "no array class has this element type");
    return qxClass::Text;
  }
}

template <class T>
qxArrayPtr qxCreateScalarOf(T value) {
  return qx_detail::createScalar(qxClassOf<T>(), &value);
}

template <class T>
const T* qxFindScalar(const qxArray* array) noexcept {
  return static_cast<const T*>(qx_detail::scalarData(array, qxClassOf<T>()));
}

template <class T>
std::span<const T> qxGetElements(const qxArray* array) {
  const void* data = qx_detail::checkedData(array, qxClassOf<T>());
  return {static_cast<const T*>(data), qxGetDataBytes(array) / sizeof(T)};
}

template <class T>
std::span<T> qxGetWritableElements(qxArray* array) {
  void* data = qx_detail::checkedWritableData(array, qxClassOf<T>());
  return {static_cast<T*>(data), qxGetDataBytes(array) / sizeof(T)};
}
