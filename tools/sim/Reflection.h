// gRPC's server reflection: it says which services an address has and sends their schemas, so that
// a client such as grpcurl can build messages without any file of this project.
//
// It serves the version v1 and the older v1alpha, whose messages are the same. gRPC's own library
// for this needs the full protobuf runtime and its generated classes. gatewayctl must not load that
// runtime beside the lite one, which the module uses in the same process.
//
// Threads: any.
// Ownership: a Reflection must outlive its calls, which belong to gRPC.
#pragma once

#include <grpcpp/generic/async_generic_service.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

class Reflection {
 public:
  // `services` are the full names of what the address serves besides reflection and health.
  explicit Reflection(const std::vector<std::string>& services);

  // Whether reflection serves the method with this path.
  static bool serves(std::string_view path);

  // Serves a call that has arrived.
  grpc::ServerGenericBidiReactor* begin() const;

  // The response to a request, both serialised. Nothing if the request can't be parsed.
  std::optional<std::string> answer(const std::string& request) const;

 private:
  std::vector<std::string> services_;
};

}  // namespace sim
