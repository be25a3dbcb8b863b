// Raw messages of gRPC's generic API. Any thread.
#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <string>
#include <vector>

namespace tools {

// All bytes of a message; empty if it can't be read.
inline std::string bytesOf(const grpc::ByteBuffer& buffer) {
  std::vector<grpc::Slice> slices;
  std::string bytes;
  if (!buffer.Dump(&slices).ok()) return bytes;
  bytes.reserve(buffer.Length());
  for (const auto& slice : slices) {
    bytes.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
  }
  return bytes;
}

}  // namespace tools
