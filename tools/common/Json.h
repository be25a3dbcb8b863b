// What the tools' JSON has in common. Any thread.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "standin/LoadedModule.h"

namespace tools {

// A float in the shortest form that reads back the same, and as the text "nan", "inf" or "-inf"
// where JSON has no number for it.
nlohmann::json jsonOf(const standin::SlotValue& value);

// Whether arrays and objects are nested deeper than this. Copying and writing JSON recurses, so a
// text from elsewhere that is nested deeply would exhaust the stack. The library's parser could
// count, too, but with a callback it searches an array again after each object in it.
bool isNestedDeeperThan(int limit, std::string_view json);

// JSON on one line, or indented. Bytes that are not UTF-8 are replaced, where the library's own
// `dump` would throw.
template <class Json>
std::string jsonText(const Json& json, int indent = -1) {
  return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}

}  // namespace tools
