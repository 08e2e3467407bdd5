#include "platform/spf/grpc/internal/standard/standardSchemas.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/text_format.h>

#include <stdexcept>
#include <string_view>

#include "platform/spf/grpc/internal/standard/health.pb.h"
#include "platform/spf/grpc/internal/standard/reflection.pb.h"
#include "platform/spf/grpc/transport.pb.h"

namespace agent::spf::grpc_transport::internal {

namespace {

void replaceAll(std::string& text, std::string_view from, std::string_view to) {
  for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
    text.replace(at, from.size(), to);
}

// Adds the schema as it is under the standard's name of its package.
void addRenamed(google::protobuf::DescriptorPool& pool, const google::protobuf::FileDescriptor* ours,
                const std::string& package, const std::string& name) {
  google::protobuf::FileDescriptorProto schema;
  ours->CopyTo(&schema);
  std::string text;
  google::protobuf::TextFormat::PrintToString(schema, &text);
  replaceAll(text, ours->package(), package);
  const bool parsed = google::protobuf::TextFormat::ParseFromString(text, &schema);
  schema.set_name(name);
  if (!parsed || pool.BuildFile(schema) == nullptr)
    throw std::logic_error(name + " cannot be made");
}

const google::protobuf::DescriptorPool* standardPool() {
  static const auto* const pool = [] {
    auto* made = new google::protobuf::DescriptorPool;  // never deleted: calls may end after static destruction began
    const auto* health = v1::health::HealthCheckRequest::descriptor()->file();
    const auto* reflection = v1::reflection::ServerReflectionRequest::descriptor()->file();
    addRenamed(*made, health, "grpc.health.v1", "grpc/health/v1/health.proto");
    addRenamed(*made, reflection, "grpc.reflection.v1", "grpc/reflection/v1/reflection.proto");
    addRenamed(*made, reflection, "grpc.reflection.v1alpha", "grpc/reflection/v1alpha/reflection.proto");
    return made;
  }();
  return pool;
}

}  // namespace

const std::vector<std::string>& serviceNames() {
  static const std::vector<std::string> names{"agent.spf.v1.Transport", "grpc.health.v1.Health",
                                              "grpc.reflection.v1.ServerReflection",
                                              "grpc.reflection.v1alpha.ServerReflection"};
  return names;
}

const std::vector<const google::protobuf::DescriptorPool*>& schemaPools() {
  static const std::vector<const google::protobuf::DescriptorPool*> pools{standardPool(),
                                                                          v1::Frame::descriptor()->file()->pool()};
  return pools;
}

}  // namespace agent::spf::grpc_transport::internal
