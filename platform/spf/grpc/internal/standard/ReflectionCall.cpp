// The standard reflection service, for grpcurl and its like.
#include <set>
#include <utility>

#include <google/protobuf/descriptor.pb.h>

#include "platform/protobufencoding/parseQuietly.h"
#include "platform/spf/grpc/internal/standard/StandardCall.h"
#include "platform/spf/grpc/internal/standard/reflection.pb.h"
#include "platform/spf/grpc/internal/standard/standardSchemas.h"

namespace agent::spf::grpc_transport::internal {

namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;
using v1::reflection::ServerReflectionRequest;
using v1::reflection::ServerReflectionResponse;

// The first that is not null of what `find` makes of each pool.
template <class Find>
auto findInPools(Find find) -> decltype(find(*schemaPools().front())) {
  for (const DescriptorPool* pool : schemaPools())
    if (auto found = find(*pool))
      return found;
  return nullptr;
}

const Descriptor* findMessage(const std::string& name) {
  return findInPools([&](const DescriptorPool& pool) { return pool.FindMessageTypeByName(name); });
}

// A file with all that it imports, each once.
void addFile(const FileDescriptor* file, std::set<const FileDescriptor*>& added,
             v1::reflection::FileDescriptorResponse& response) {
  if (!added.insert(file).second)
    return;
  google::protobuf::FileDescriptorProto schema;
  file->CopyTo(&schema);
  response.add_file_descriptor_proto(schema.SerializeAsString());
  for (int i = 0; i < file->dependency_count(); ++i)
    addFile(file->dependency(i), added, response);
}

void refuse(grpc::StatusCode code, const std::string& text, ServerReflectionResponse& response) {
  response.mutable_error_response()->set_error_code(code);
  response.mutable_error_response()->set_error_message(text);
}

void answerWithFile(const FileDescriptor* file, const std::string& what, ServerReflectionResponse& response) {
  if (file == nullptr)
    return refuse(grpc::StatusCode::NOT_FOUND, "There is no " + what + " here.", response);
  std::set<const FileDescriptor*> added;
  addFile(file, added, *response.mutable_file_descriptor_response());
}

const FileDescriptor* fileOfExtension(const std::string& type, int number) {
  const Descriptor* message = findMessage(type);
  if (message == nullptr)
    return nullptr;
  const FieldDescriptor* extension = message->file()->pool()->FindExtensionByNumber(message, number);
  return extension == nullptr ? nullptr : extension->file();
}

void listExtensions(const std::string& type, ServerReflectionResponse& response) {
  const Descriptor* message = findMessage(type);
  if (message == nullptr)
    return refuse(grpc::StatusCode::NOT_FOUND, "There is no message " + type + " here.", response);
  auto& numbers = *response.mutable_all_extension_numbers_response();
  numbers.set_base_type_name(type);
  std::vector<const FieldDescriptor*> extensions;
  message->file()->pool()->FindAllExtensions(message, &extensions);
  for (const FieldDescriptor* extension : extensions)
    numbers.add_extension_number(extension->number());
}

void listServices(ServerReflectionResponse& response) {
  for (const std::string& name : serviceNames())
    response.mutable_list_services_response()->add_service()->set_name(name);
}

void answerRequest(const ServerReflectionRequest& request, ServerReflectionResponse& response) {
  switch (request.message_request_case()) {
    case ServerReflectionRequest::kListServices:
      return listServices(response);
    case ServerReflectionRequest::kFileByFilename: {
      const std::string& name = request.file_by_filename();
      return answerWithFile(findInPools([&](const DescriptorPool& pool) { return pool.FindFileByName(name); }),
                            "schema " + name, response);
    }
    case ServerReflectionRequest::kFileContainingSymbol: {
      const std::string& name = request.file_containing_symbol();
      return answerWithFile(
          findInPools([&](const DescriptorPool& pool) { return pool.FindFileContainingSymbol(name); }),
          "symbol " + name, response);
    }
    case ServerReflectionRequest::kFileContainingExtension: {
      const auto& wanted = request.file_containing_extension();
      return answerWithFile(
          fileOfExtension(wanted.containing_type(), wanted.extension_number()),
          "extension " + std::to_string(wanted.extension_number()) + " of " + wanted.containing_type(), response);
    }
    case ServerReflectionRequest::kAllExtensionNumbersOfType:
      return listExtensions(request.all_extension_numbers_of_type(), response);
    case ServerReflectionRequest::MESSAGE_REQUEST_NOT_SET:
      break;
  }
  refuse(grpc::StatusCode::INVALID_ARGUMENT, "The request asks for nothing that is known here.", response);
}

class ReflectionCall final : public StandardCall {
 public:
  StandardAnswer receive(const std::string& message) override {
    ServerReflectionResponse response;
    ServerReflectionRequest& request = *response.mutable_original_request();
    if (!parallel::protobufencoding::parseQuietly(request, message))
      return {{}, grpc::Status(grpc::StatusCode::INVALID_ARGUMENT, "A ServerReflectionRequest is due.")};
    response.set_valid_host(request.host());
    answerRequest(request, response);
    return {{response.SerializeAsString()}, std::nullopt};
  }

  StandardAnswer halfClosed() override { return {{}, grpc::Status::OK}; }
};

}  // namespace

std::unique_ptr<StandardCall> openReflectionCall(const std::string& method) {
  for (const char* version : {"v1", "v1alpha"})
    if (method == std::string("/grpc.reflection.") + version + ".ServerReflection/ServerReflectionInfo")
      return std::make_unique<ReflectionCall>();
  return nullptr;
}

}  // namespace agent::spf::grpc_transport::internal
