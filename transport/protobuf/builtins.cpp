#include "transport/protobuf/builtins.h"

#include <array>

#include "platform/errors/argumentErrors.h"
#include "platform/protobufencoding/parseQuietly.h"
#include "platform/zksmessages/zksmessages.pb.h"
#include "transport/protobuf/detail.h"
#include "transport/protobuf/internal/withErrorText.h"
#include "transport/protobuf/messageNbytes.h"

namespace parallel::spf::transport::protobuf {

namespace {

void checkArgumentCounts(int nlhs, int nrhs) {
  if (nlhs >= 2)
    error_maxlhs();
  if (nrhs >= 2)
    error_maxrhs();
  if (nrhs != 1)
    error_minrhs();
}

qxArrayPtr serialized(const google::protobuf::Message& message) {
  const std::size_t nbytes = message.ByteSizeLong();
  qxArrayPtr bytes = qxCreateNumericArray(std::array<std::size_t, 2>{nbytes, 1}, qxClass::Uint8);
  const int checked = messageNbytes(nbytes);
  if (checked > 0)
    static_cast<void>(message.SerializeToArray(qxGetWritableData(bytes.get()), checked));
  return bytes;
}

qxArrayPtr taskExecutionInfo(const qxArray* bytes) {
  zksmessages::TesselTaskExecutionInfo message;
  const void* data = qxGetData(bytes);
  if (data != nullptr)
    static_cast<void>(protobufencoding::parseQuietly(message, data, qxGetNumberOfElements(bytes)));
  return detail::decode(message);
}

}  // namespace

void bnSerializeProtobufStruct(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs) {
  checkArgumentCounts(nlhs, nrhs);
  plhs[0] = internal::withErrorText("serializing", [&] { return serialized(*detail::encode(prhs[0])); }).release();
}

void bnDeserializeTaskExecutionInfo(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs) {
  checkArgumentCounts(nlhs, nrhs);
  plhs[0] = internal::withErrorText("deserializing", [&] { return taskExecutionInfo(prhs[0]); }).release();
}

}  // namespace parallel::spf::transport::protobuf
