// The message types that can be named: those compiled into the process, and those of descriptor sets loaded at run
// time. Threads: any, at once.
#pragma once

#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace parallel::protobufencoding {

class MessageTypes {
 public:
  // An empty message; null when no type has this name. Compiled types come first, then the set loaded last.
  static std::unique_ptr<google::protobuf::Message> create(const std::string& fullName);
  // The same, of compiled types only.
  static std::unique_ptr<google::protobuf::Message> createCompiled(const std::string& fullName);

  // All or nothing. Throws DescriptorSetError.
  static void add(const std::string& descriptorSet);

  // Whether the type is one of those above, which are never destroyed.
  static bool lastsForever(const google::protobuf::Descriptor* descriptor);
};

}  // namespace parallel::protobufencoding
