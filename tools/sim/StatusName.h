// The status codes of gRPC by the names that its documentation gives them. Any thread.
#pragma once

#include <grpcpp/support/status.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sim {

std::optional<grpc::StatusCode> statusCalled(std::string_view name);

// All of them, OK first.
std::vector<std::string> statusNames();

}  // namespace sim
