// The texts in encoded messages that protobuf's parser reports because they are not UTF-8.
#pragma once

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <string_view>
#include <vector>

namespace parallel::protobufencoding {

// Where they begin, in order, up to the place where the parser would stop: at the first one that its field forbids, or
// at other damage. Texts that only some versions or builds report are among them.
std::vector<std::size_t> findBadTexts(const google::protobuf::Descriptor& type, std::string_view bytes);

// The field of that number, extensions included; null for none.
const google::protobuf::FieldDescriptor* findField(const google::protobuf::Descriptor& type, int number);

}  // namespace parallel::protobufencoding
