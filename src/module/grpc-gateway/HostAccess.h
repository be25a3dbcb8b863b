// How the module's sources log to the host and read its strings. Any thread.
#pragma once

#include <stdexcept>
#include <string>

#include "host/sonalith.h"

// Writes one line to the host's log, with the path and line of the calling source. Takes a level
// (SONALITH_LOG_...), a printf format and its arguments. Only a macro knows where it is used.
#define GATEWAY_LOG(level, ...) sonalith_log((level), __FILE__, __LINE__, 1, __VA_ARGS__)

namespace gateway {

// Copies a string of the host. Throws std::logic_error for null. People search logs for its text,
// so it must not vary with the standard library.
inline std::string stringFromHost(const char* text) {
  if (text == nullptr) throw std::logic_error("basic_string::_M_construct null not valid");
  return text;
}

}  // namespace gateway
