// The program that the conformance suite asks: each message it gives is parsed, goes through a host struct, and is
// written in the format it wants. Requests and responses come on the standard streams, each after its length in four
// bytes, the lowest first.
#include <google/protobuf/text_format.h>
#include <google/protobuf/util/json_util.h>

#include <array>
#include <cstdint>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include "conformance.pb.h"
#include "google/protobuf/test_messages_proto2.pb.h"
#include "google/protobuf/test_messages_proto3.pb.h"
#include "platform/protobufencoding/protobufencoding.h"

namespace {

using conformance::ConformanceRequest;
using conformance::ConformanceResponse;
using google::protobuf::Message;

// The linker keeps the message types only for what names them.
const std::array kTypes{protobuf_test_messages::proto2::TestAllTypesProto2::descriptor(),
                        protobuf_test_messages::proto3::TestAllTypesProto3::descriptor()};

bool isSpoken(const ConformanceRequest& request) {
  return request.payload_case() != ConformanceRequest::kJspbPayload &&
         request.requested_output_format() != conformance::JSPB;
}

bool parse(const ConformanceRequest& request, Message& message) {
  switch (request.payload_case()) {
    case ConformanceRequest::kProtobufPayload:
      return message.ParseFromString(request.protobuf_payload());
    case ConformanceRequest::kJsonPayload: {
      google::protobuf::util::JsonParseOptions options;
      options.ignore_unknown_fields = request.test_category() == conformance::JSON_IGNORE_UNKNOWN_PARSING_TEST;
      return google::protobuf::util::JsonStringToMessage(request.json_payload(), &message, options).ok();
    }
    case ConformanceRequest::kTextPayload:
      return google::protobuf::TextFormat::ParseFromString(request.text_payload(), &message);
    default:
      return false;
  }
}

void write(const ConformanceRequest& request, const Message& message, ConformanceResponse& response) {
  switch (request.requested_output_format()) {
    case conformance::PROTOBUF:
      if (!message.SerializeToString(response.mutable_protobuf_payload()))
        response.set_serialize_error("not serialised");
      return;
    case conformance::JSON:
      if (!google::protobuf::util::MessageToJsonString(message, response.mutable_json_payload()).ok())
        response.set_serialize_error("no JSON form");
      return;
    case conformance::TEXT_FORMAT: {
      google::protobuf::TextFormat::Printer printer;
      printer.SetHideUnknownFields(!request.print_unknown_fields());
      if (!printer.PrintToString(message, response.mutable_text_payload()))
        response.set_serialize_error("no text form");
      return;
    }
    default:
      response.set_skipped("unknown output format");
  }
}

std::unique_ptr<Message> throughAStruct(const Message& message) {
  const qxArrayPtr value = parallel::protobufencoding::decode(message, nullptr);
  return parallel::protobufencoding::encode(value.get(), nullptr, 0);
}

ConformanceResponse answerOf(const ConformanceRequest& request, Message& message) {
  ConformanceResponse response;
  try {
    if (parse(request, message))
      write(request, *throughAStruct(message), response);
    else
      response.set_parse_error("not parsed");
  } catch (const std::exception& error) {
    response.set_runtime_error(error.what());
  }
  return response;
}

ConformanceResponse answer(const ConformanceRequest& request) {
  if (isSpoken(request)) {
    if (const auto message = parallel::protobufencoding::generateMessageByName(request.message_type()))
      return answerOf(request, *message);
  }
  ConformanceResponse response;
  if (isSpoken(request))
    response.set_runtime_error("unknown message type " + request.message_type());
  else
    response.set_skipped("JSPB is not spoken here");
  return response;
}

std::uint32_t lengthFrom(const std::array<char, 4>& bytes) {
  std::uint32_t length = 0;
  for (std::size_t i = 4; i > 0; --i)
    length = length << 8U | static_cast<unsigned char>(bytes[i - 1]);
  return length;
}

bool readRequest(std::string& request) {
  std::array<char, 4> length{};
  if (!std::cin.read(length.data(), length.size()))
    return false;
  request.resize(lengthFrom(length));
  return static_cast<bool>(std::cin.read(request.data(), static_cast<std::streamsize>(request.size())));
}

void writeResponse(const std::string& response) {
  for (unsigned shift = 0; shift < 32; shift += 8)
    std::cout.put(static_cast<char>(response.size() >> shift & 0xffU));
  std::cout.write(response.data(), static_cast<std::streamsize>(response.size())).flush();
}

}  // namespace

int main() {
  std::string bytes;
  while (readRequest(bytes)) {
    ConformanceRequest request;
    if (!request.ParseFromString(bytes))
      return 1;
    writeResponse(answer(request).SerializeAsString());
  }
  return kTypes.empty() ? 1 : 0;
}
