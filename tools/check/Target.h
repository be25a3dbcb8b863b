// Whether gRPC understands a target as an address. gRPC accepts any text and fails only later, so
// this file repeats its syntax: [SCHEME:]HOST:PORT, and the schemes that the linked version knows.
// Names are not resolved. Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace check {

struct TargetFault {
  std::string text;              // what is wrong with it
  std::string remedy;            // what to write
  std::string replacement = {};  // the target that was probably meant; empty if it is unknown
};

// Nothing if the target is good. Do not pass an empty one, which is no fault: it switches meters or
// parameters off.
std::optional<TargetFault> faultOf(std::string_view target);

// The same as a message without a full stop, such as: bad target "localhost": it has no port, so
// gRPC uses 443; write localhost:PORT. Empty if the target is good.
std::string complaintAboutTarget(std::string_view target);

}  // namespace check
