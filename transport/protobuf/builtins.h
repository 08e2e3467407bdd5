// Host builtins by which interpreter code makes and reads the scheduler's messages.
//
// Both take one input and give one output, which is stored even when none is asked for.
// Ownership: the output belongs to the caller. Nothing is stored when they throw.
// Threads:   any, at once.
// Errors:    first the argument counts, too many outputs before inputs: `TooManyOutputs`, `TooManyInputs`,
//            `NotEnoughInputs`. Any std::exception after that becomes an InternalException whose text is "Error
//            occurred serializing protobuf message: " or "Error occurred deserializing protobuf message: ", the cause,
//            and a line feed.
#pragma once

#include "platform/array/qxArray.h"
#include "transport/export.h"

namespace parallel::spf::transport::protobuf {

// The struct of a message in, its encoded bytes as a uint8 column out.
PARALLEL_SPF_TRANSPORT_EXPORT void bnSerializeProtobufStruct(int nlhs, qxArray** plhs, int nrhs, const qxArray** prhs);

// The encoded bytes of a TesselTaskExecutionInfo in, its struct out. Truncated or damaged bytes are read as far as the
// parser gets. The input's class is not checked: one byte is read for each element.
PARALLEL_SPF_TRANSPORT_EXPORT void bnDeserializeTaskExecutionInfo(int nlhs, qxArray** plhs, int nrhs,
                                                                  const qxArray** prhs);

}  // namespace parallel::spf::transport::protobuf
