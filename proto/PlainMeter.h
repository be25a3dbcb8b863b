// Reads meter messages in their plain form several times faster than the generated parser.
//
// The plain form is what serialisers write: each item has a key and then a value, and each value
// has one scalar or text member. Anything else, valid or not, is left to the generated parser, with
// its bytes untouched. So that parser's verdict and result hold for every message.
//
// Most of the time is saved by keeping the items of the previous message, with the memory of their
// texts. The generated parser clears them and makes each value anew.
#pragma once

#include <grpcpp/impl/codegen/proto_utils.h>
#include <grpcpp/support/byte_buffer.h>

#include "meters.pb.h"

namespace gateway {

// Fills `meter`, whatever it held before. Returns false if the message is not in the plain form;
// `meter` may then hold part of it. Does not change `message`. Throws std::bad_alloc.
bool readPlainMeter(grpc::ByteBuffer& message, sonalith::grpc::Meter& meter);

}  // namespace gateway

namespace grpc {

// Here gRPC finds how to serialise and parse the messages of a call. The generated stub includes
// this header, so that no call can be compiled without it.
template <>
class SerializationTraits<sonalith::grpc::Meter>
    : public SerializationTraits<protobuf::MessageLite> {
 public:
  static Status Deserialize(ByteBuffer* message, sonalith::grpc::Meter* meter);
};

}  // namespace grpc
