// What every source of the module needs to talk to its host. Any thread.
#pragma once

#include <stdexcept>
#include <string>

#include "host/sonalith.h"

// One line of the host's log, under the path and line of the source that writes it. Takes a level
// (SONALITH_LOG_...), a printf format and its arguments. A macro, since only a macro sees the place
// of its use.
#define GATEWAY_LOG(level, ...) sonalith_log((level), __FILE__, __LINE__, 1, __VA_ARGS__)

namespace gateway {

// Copies a string of the host. Throws std::logic_error for null, in words that people look for in
// logs: they must not change with the standard library.
inline std::string stringFromHost(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return text;
}

}  // namespace gateway
