// Host values to the strings and enums of message fields.
#pragma once

#include <string>
#include <string_view>

#include "platform/array/qxArray.h"
#include "platform/protobufencoding/internal/FieldPath.h"
#include "platform/protobufencoding/internal/MessageShape.h"

namespace parallel::protobufencoding {

// The UTF-8 of a text row, or the bytes of a uint8 vector. Throws EncodeError when the field asks for UTF-8 and they
// are not, and for text that has no UTF-8 form.
std::string stringFrom(const qxArray* array, const FieldShape& field, const FieldPath& path);

// The bytes of a uint8 vector.
std::string bytesFrom(const qxArray* array, const FieldPath& path);

// Whether the array is this text.
bool isText(const qxArray* array, std::u16string_view text);

// Whether both are the same text, told by their bytes being the same ones. False says nothing.
bool isSameText(const qxArray* array, const qxArray* text);

// Of a text row.
std::string textFrom(const qxArray* array, const FieldPath& path);

// The number that a name or a number stands for. Throws EncodeError when the field cannot hold it.
int enumFrom(const qxArray* array, const FieldShape& field, const FieldPath& path);
int checkedEnum(std::int32_t number, const FieldShape& field, const FieldPath& path);

}  // namespace parallel::protobufencoding
