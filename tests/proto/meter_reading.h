// One message read in both ways: as gRPC reads it for a call, and by the generated parser.
#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <algorithm>
#include <cstring>
#include <string_view>
#include <vector>

#include "PlainMeter.h"

namespace wire {

// In slices of this size; 0 for one slice.
inline grpc::ByteBuffer bufferOf(std::string_view bytes, std::size_t sliceSize = 0) {
  const std::size_t step = sliceSize == 0 ? bytes.size() : sliceSize;
  std::vector<grpc::Slice> slices;
  for (std::size_t i = 0; i < bytes.size(); i += step) {
    slices.emplace_back(bytes.data() + i, std::min(step, bytes.size() - i));
  }
  return {slices.data(), slices.size()};
}

template <class Number>
bool hasSameBytes(Number a, Number b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

// Both have the same member, with the same value to the last bit. Arrays are compared as they are
// serialised.
inline bool isSame(const sonalith::grpc::AnyValue& a, const sonalith::grpc::AnyValue& b) {
  return a.value_case() == b.value_case() && a.has_sstring() == b.has_sstring() &&
         a.sstring().data() == b.sstring().data() && hasSameBytes(a.sfloat(), b.sfloat()) &&
         a.sint() == b.sint() && a.suint() == b.suint() && hasSameBytes(a.sdouble(), b.sdouble()) &&
         a.SerializeAsString() == b.SerializeAsString();
}

inline bool isSame(const sonalith::grpc::Meter& a, const sonalith::grpc::Meter& b) {
  return std::equal(a.values().begin(), a.values().end(), b.values().begin(), b.values().end(),
                    [](const auto& x, const auto& y) {
                      return x.key() == y.key() && x.has_value() == y.has_value() &&
                             isSame(x.value(), y.value());
                    }) &&
         a.SerializeAsString() == b.SerializeAsString();
}

// Reads the bytes into `meter`, whatever it holds, as gRPC does. Returns whether the result is that
// of the generated parser. `isMessage` becomes the parser's verdict.
inline bool readsAsGenerated(std::string_view bytes, std::size_t sliceSize,
                             sonalith::grpc::Meter& meter, bool& isMessage) {
  sonalith::grpc::Meter expected;
  isMessage = expected.ParseFromArray(bytes.data(), static_cast<int>(bytes.size()));
  grpc::ByteBuffer buffer = bufferOf(bytes, sliceSize);
  using Traits = grpc::SerializationTraits<sonalith::grpc::Meter>;
  return Traits::Deserialize(&buffer, &meter).ok() == isMessage &&
         (!isMessage || isSame(meter, expected));
}

}  // namespace wire
