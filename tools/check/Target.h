// Whether gRPC can make an address of a target. It accepts any text and fails later, for good, so
// its syntax stands here: [SCHEME:]HOST:PORT and the schemes that the linked version knows. Names
// are not looked up. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace check {

struct TargetFault {
  std::string text;    // what gRPC makes of it
  std::string remedy;  // what to write
};

// Nothing if the target is good. An empty one is not asked about: it switches its side off.
std::optional<TargetFault> faultOf(std::string_view target);

}  // namespace check
