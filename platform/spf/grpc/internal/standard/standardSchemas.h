// What reflection tells: the services that a server of ours has, and the schemas of them and of their messages.
#pragma once

#include <google/protobuf/descriptor.h>

#include <string>
#include <vector>

namespace agent::spf::grpc_transport::internal {

// Full names of all services of a server.
const std::vector<std::string>& serviceNames();

// Where schemas are looked for, in this order: those of the standard services under their standard names, then those of
// all generated code in the process, such as the messages of a service's methods.
const std::vector<const google::protobuf::DescriptorPool*>& schemaPools();

}  // namespace agent::spf::grpc_transport::internal
